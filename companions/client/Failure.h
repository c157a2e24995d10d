#pragma once

#include <stdexcept>
#include <string>

namespace kolvan::client {

/// What was asked for cannot be done: a sentence for the user, and exit code 1.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The server refuses a request, and says why.
struct Refusal : Failure {
    Refusal(long httpStatus, const std::string& sentence) : Failure(sentence), status(httpStatus) {}

    long status;
};

/// The command line makes no sense: a sentence for the user, and exit code 2.
struct UsageError : std::invalid_argument {
    using std::invalid_argument::invalid_argument;
};

}  // namespace kolvan::client
