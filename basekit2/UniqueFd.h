#pragma once

#include <utility>

#include <unistd.h>

namespace basekit2 {

/// Owner of one file descriptor, or of none.
class UniqueFd {
public:
    UniqueFd() noexcept = default;

    /// Takes over `descriptor`; -1 means none, as system calls report it.
    explicit UniqueFd(int descriptor) noexcept : number(descriptor) {}

    UniqueFd(UniqueFd&& other) noexcept : number(std::exchange(other.number, kNone)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(std::exchange(other.number, kNone));
        return *this;
    }
    ~UniqueFd() { reset(); }

    int get() const noexcept { return number; }
    explicit operator bool() const noexcept { return number != kNone; }

    /// Closes what is owned and takes over `descriptor`.
    void reset(int descriptor = kNone) noexcept {
        const int previous = std::exchange(number, descriptor);
        if (previous != kNone) {
            // Linux frees the number even when close reports an error: there is nothing to retry.
            (void)::close(previous);
        }
    }

private:
    static constexpr int kNone = -1;

    int number = kNone;
};

}  // namespace basekit2
