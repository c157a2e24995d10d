#pragma once

#include <exception>

namespace cagnt1 {

/// Prints the text of an error that nobody handles any more on standard error, as one line.
void printError(const std::exception& error);

}  // namespace cagnt1
