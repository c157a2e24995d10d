#pragma once

#include <stdexcept>

namespace kolvan::client {

/// What was asked for cannot be done: a sentence for the user, and exit code 1.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The command line makes no sense: a sentence for the user, and exit code 2.
struct UsageError : std::invalid_argument {
    using std::invalid_argument::invalid_argument;
};

}  // namespace kolvan::client
