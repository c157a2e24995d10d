#include "companions/check/Environment.h"

#include <algorithm>
#include <cstddef>

#include <unistd.h>

namespace kolvan::check {

namespace {

void add(Environment& variables, const std::string& text) {
    const std::size_t equals = text.find('=');
    if (equals != std::string::npos) {
        variables.emplace(text.substr(0, equals), text.substr(equals + 1));
    }
}

}  // namespace

Environment ownEnvironment() {
    Environment variables;
    for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
        add(variables, *variable);
    }
    return variables;
}

Environment parseEnvironment(const std::string& text) {
    Environment variables;
    std::size_t begin = 0;
    while (begin < text.size()) {
        const std::size_t end = std::min(text.find('\0', begin), text.size());
        add(variables, text.substr(begin, end - begin));
        begin = end + 1;
    }
    return variables;
}

}  // namespace kolvan::check
