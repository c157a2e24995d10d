#pragma once

#include <curl/curl.h>

#include <optional>
#include <string>
#include <vector>

namespace kolvan::test {

/// A request over TLS to a server on 127.0.0.1.
struct TlsRequest {
    unsigned port = 0;
    std::string authority;  ///< PEM file of the certificates that are trusted
    std::string path;
    std::optional<std::string> body = {};  ///< what is posted; none: the request is GET
    std::vector<std::string> fields = {};  ///< whole lines, "Name: value"
    long tlsVersions = CURL_SSLVERSION_DEFAULT;
};

struct TlsAnswer {
    CURLcode result = CURLE_OK;
    long status = 0;
    std::string head;  ///< its lines as they came
    std::string body;
};

/// Sends a request over a connection of its own.
/// @return `result` says so when no answer came, or the server could not prove who it is
TlsAnswer sendOverTls(const TlsRequest& request);

}  // namespace kolvan::test
