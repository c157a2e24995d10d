#pragma once

#include <system_error>

namespace basekit2 {

/// Outcome of an operation of the facility: nothing reported (empty), no error, or the number of
/// the system error (an `errno` value) that ended it.
///
/// Two codes are equal when both are empty or both carry the same number. Callers therefore have
/// two ways to judge: `is_failure()` asks whether an error was reported; a comparison with
/// `no_error()` asks whether success was reported. An empty code is neither.
class result_t {
public:
    /// An empty code: no outcome has been reported.
    constexpr result_t() noexcept = default;

    /// The plain no-error value, which is also what success is reported with.
    static constexpr result_t no_error() noexcept { return result_t(0); }

    /// A failed system call, given the `errno` it left.
    static constexpr result_t from_errno(int error_number) noexcept {
        return result_t(error_number);
    }

    constexpr bool is_empty() const noexcept { return value == kEmpty; }

    /// True when an error was reported: the code is neither empty nor the no-error value.
    constexpr bool is_failure() const noexcept { return value > 0; }

    /// The system error as a standard error code; the no-error code when there is none.
    std::error_code error_code() const noexcept {
        return is_failure() ? std::error_code(value, std::generic_category()) : std::error_code();
    }

    friend constexpr bool operator==(result_t, result_t) noexcept = default;

private:
    static constexpr int kEmpty = -1;

    constexpr explicit result_t(int code) noexcept : value(code) {}

    int value = kEmpty;
};

}  // namespace basekit2
