#pragma once

#include <exception>
#include <iostream>
#include <string>

namespace cagnt1 {

/// Writes what went wrong to standard error as one line, for failures that nobody waits for.
inline void printError(const std::exception& error) {
    std::cerr << std::string(error.what()) + "\n";
}

}  // namespace cagnt1
