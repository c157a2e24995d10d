#pragma once

#include <string>

namespace kolvan::server {

/// Who asks for something, for the audit.
struct Actor {
    std::string name;     ///< of a user or token; empty when unknown
    std::string address;  ///< from where; "local" for the command line
};

}  // namespace kolvan::server
