#include "companions/server/serve/LineLog.h"

#include <algorithm>
#include <cerrno>
#include <string>

#include <unistd.h>

namespace kolvan::server {

namespace {

bool speaksToTerminals(char character) {
    const auto value = static_cast<unsigned char>(character);
    return value < 0x20 || value == 0x7f;
}

}  // namespace

void LineLog::write(std::string_view text) const {
    std::string line(text);
    std::replace_if(line.begin(), line.end(), speaksToTerminals, '?');
    line += '\n';
    // One call for the whole line: pipes and files do not mix what two threads write.
    while (::write(descriptor, line.data(), line.size()) < 0 && errno == EINTR) {
    }
}

}  // namespace kolvan::server
