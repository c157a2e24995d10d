#include "tests/fuzz/Fuzz.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>

#include <fcntl.h>
#include <unistd.h>

namespace kolvan::fuzz {

namespace {

void print(std::string_view text) {
    (void)std::fwrite(text.data(), 1, text.size(), stderr);
}

}  // namespace

void require(bool holds, std::string_view claim) {
    if (!holds) {
        print("Does not hold: ");
        print(claim);
        print("\n");
        std::abort();
    }
}

void requireEqual(std::string_view expected, std::string_view actual, std::string_view claim) {
    if (expected != actual) {
        print("Expected: [");
        print(expected);
        print("]\nActual:   [");
        print(actual);
        print("]\n");
        require(false, claim);
    }
}

void silenceStreams() {
    std::cout.rdbuf(nullptr);
    std::cerr.rdbuf(nullptr);
}

int lowestFreeDescriptor() {
    const int descriptor = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    require(descriptor >= 0, "a descriptor can be had");
    (void)::close(descriptor);
    return descriptor;
}

std::string upToNul(std::string_view text) {
    return std::string(text.substr(0, text.find('\0')));
}

std::vector<std::string> split(std::string_view text, char separator) {
    std::vector<std::string> pieces(1);
    for (const char character : text) {
        if (character == separator) {
            pieces.emplace_back();
        } else {
            pieces.back() += character;
        }
    }
    return pieces;
}

}  // namespace kolvan::fuzz
