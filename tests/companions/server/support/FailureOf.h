#pragma once

#include <exception>
#include <string>

namespace kolvan::server {

/// Runs `call` and returns why it failed.
template <typename Call>
std::string failureOf(Call&& call) {
    try {
        call();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "nothing failed";
}

}  // namespace kolvan::server
