#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::client {

struct HttpRequest {
    std::string method = "GET";
    std::string path;                 ///< below the server's address, with its query
    std::optional<std::string> body;  ///< JSON
    std::vector<std::string> headers;
};

struct HttpResponse {
    long status = 0;
    std::string contentType;
    std::string body;  ///< of an error also where pieces were asked for
};

/// A descriptor to watch while a request runs.
struct HttpWatch {
    int descriptor = -1;             ///< -1: none
    std::function<void()> readable;  ///< called as long as it can be read; what it throws ends the
                                     ///< request and is thrown on
};

/// Speaks to one server.
///
/// Threads: one at a time.
class HttpClient {
public:
    /// @param serverAddress scheme, host and perhaps a path, "https://host:8443"
    /// @param accessToken sent along; empty for none
    /// @param authorityFile PEM file with the certificates that are trusted instead of the
    /// system's;
    ///        empty: the system's
    HttpClient(std::string serverAddress, std::string accessToken, std::string authorityFile);
    ~HttpClient();

    /// Sends a request and waits for the answer.
    /// @param piece takes a good answer's body as it comes, which is not kept then; what it throws
    /// ends
    ///        the request and is thrown on
    /// @throws Failure when there is no answer
    HttpResponse send(const HttpRequest& request,
                      const std::function<void(std::string_view)>& piece = {},
                      const HttpWatch& watch = {});

private:
    struct Handles;

    const std::string address;
    const std::string token;
    const std::string authorities;
    const std::unique_ptr<Handles> handles;
};

/// Returns a text for use in a path or a query, what has a meaning there as "%2F".
std::string percentEncoded(std::string_view text);

}  // namespace kolvan::client
