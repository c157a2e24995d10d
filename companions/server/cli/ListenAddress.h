#pragma once

#include <cstdint>
#include <string>

namespace kolvan::server {

/// Where to listen.
struct ListenAddress {
    std::string address;     ///< of IPv4, or of IPv6 without brackets
    std::uint16_t port = 0;  ///< 0: the system's choice

    /// Whether only programs on this machine reach it.
    bool isLoopback() const;
};

/// Reads "ADDRESS:PORT", with an address of IPv6 in brackets. Names are not looked up: which of a
/// name's addresses is meant would be a guess, "localhost" excepted.
/// @throws std::invalid_argument with a sentence for the user
ListenAddress readListenAddress(const std::string& text);

}  // namespace kolvan::server
