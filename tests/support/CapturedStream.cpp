#include "tests/support/CapturedStream.h"

#include <cstdio>
#include <iostream>
#include <stdexcept>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace kolvan::test {

namespace {

void flushStandardStreams() {
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
}

}  // namespace

CapturedStream::CapturedStream(int descriptor)
    : redirected(descriptor),
      original(::fcntl(descriptor, F_DUPFD_CLOEXEC, 3)),
      memory(::memfd_create("captured", MFD_CLOEXEC)) {
    flushStandardStreams();
    // Appending, because children that inherit the descriptor write to it too.
    if (!original || !memory || ::fcntl(memory.get(), F_SETFL, O_APPEND) != 0 ||
        ::dup2(memory.get(), redirected) < 0) {
        throw std::runtime_error("cannot redirect a standard stream");
    }
}

CapturedStream::~CapturedStream() {
    flushStandardStreams();
    (void)::dup2(original.get(), redirected);
}

std::string CapturedStream::text() const {
    flushStandardStreams();
    std::string content;
    char buffer[4096];
    ssize_t got = 0;
    while ((got = ::pread(memory.get(), buffer, sizeof(buffer),
                          static_cast<off_t>(content.size()))) > 0) {
        content.append(buffer, static_cast<std::size_t>(got));
    }
    return content;
}

}  // namespace kolvan::test
