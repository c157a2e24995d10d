#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace kolvan::check {

/// One request to the endpoint for messages, and what became of it.
struct Exchange {
    int error = 0;           ///< the library's number; 0: an answer has come whole
    std::string errorText;   ///< the library's words
    std::string peer;        ///< "address:port" of whoever was reached, empty: nobody
    bool encrypted = false;  ///< the handshake has come to its end
    long verification = 0;   ///< OpenSSL's number of the result
    long status = 0;
    long proxyStatus = 0;  ///< of the proxy's answer to CONNECT
    std::string contentType;
    std::string redirect;  ///< the address that the answer points to
    std::string via;       ///< the header in which a proxy names itself
    std::string server;    ///< the header in which the answering program names itself
    std::string body;      ///< its beginning
    std::optional<std::chrono::system_clock::time_point> date;  ///< the other side's clock
};

/// Sends an empty message, which no agent sends.
/// @param verify whether the server has to prove who it is
Exchange ask(const std::string& address, bool verify, std::chrono::seconds patience);

}  // namespace kolvan::check
