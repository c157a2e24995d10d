#include "agent/PrintError.h"

#include <iostream>
#include <string>

namespace cagnt1 {

void printError(const std::exception& error) {
    // One text and one output: lines of several threads do not mix.
    std::cerr << std::string(error.what()) + "\n";
}

}  // namespace cagnt1
