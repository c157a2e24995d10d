#pragma once

#include <utility>

#include <unistd.h>

namespace kolvan::profiler {

/// Owns one descriptor; -1 stands for none.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int descriptor) : number(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept : number(std::exchange(other.number, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(number, other.number);
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { (void)close(); /* whoever cares for the result closes aloud */ }

    int get() const noexcept { return number; }
    explicit operator bool() const noexcept { return number >= 0; }

    /// Closes now. @return false, with errno set, when the system reports a failure
    bool close() noexcept {
        const int descriptor = std::exchange(number, -1);
        return descriptor < 0 || ::close(descriptor) == 0;
    }

private:
    int number = -1;
};

}  // namespace kolvan::profiler
