#pragma once

#include <string>

namespace kolvan::check {

/// A server's address taken apart as the transport library does it.
struct Endpoint {
    std::string scheme;  ///< in lower case; "http" where the address has none
    std::string host;    ///< IPv6 without brackets
    int port = 0;
    bool schemeWritten = false;
    bool hasQueryOrFragment = false;

    /// Whether the host is this machine.
    bool isLocal() const;
};

/// @throws std::invalid_argument with the library's words when the address cannot be one
Endpoint parseEndpoint(const std::string& address);

/// The address without a user name and password in it, for texts that others may read.
std::string withoutCredentials(const std::string& address);

}  // namespace kolvan::check
