// Reads numbers, of which one in eight is none: its reader throws, ten calls below who catches.
//
// usage: target-exceptions ROUNDS

#include <array>
#include <cstddef>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>

namespace {

using Counts = std::map<std::string, long>;

[[gnu::noinline]] long readNumber(const std::string& text) {
    return std::stol(text);  // throws std::invalid_argument
}

[[gnu::noinline]] long readBehindBrackets(const std::string& text, int brackets) {
    const std::string inner = text.substr(1);  // has to be destroyed on the way out
    const long number = brackets > 1 ? readBehindBrackets(inner, brackets - 1) : readNumber(inner);
    return number + static_cast<long>(inner.size());
}

[[gnu::noinline]] void count(Counts& counts, const std::string& text) {
    try {
        counts["sum"] += readBehindBrackets(text, 10);
    } catch (const std::invalid_argument& error) {
        ++counts[error.what()];
    }
}

}  // namespace

int main(int argc, char** argv) {
    Counts counts;
    const long rounds = argc > 1 ? std::atol(argv[1]) : 0;
    for (long round = 0; round < rounds; ++round) {
        const std::string text = "[[[[[[[[[[" + std::to_string(round);
        count(counts, round % 8 == 0 ? text.substr(0, 10) + "none" : text);
    }
    return counts.empty() ? 1 : 0;
}
