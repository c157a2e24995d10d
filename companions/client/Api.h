#pragma once

#include "companions/client/HttpClient.h"
#include "companions/client/Json.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kolvan::client {

/// Names and values of a query; what is empty is left out.
using Query = std::vector<std::pair<std::string, std::string>>;

/// The server's API as far as the commands need it.
class Api {
public:
    /// @param httpClient outlives this object
    explicit Api(HttpClient& httpClient) : client(httpClient) {}

    /// Asks for JSON.
    /// @param path below "/api/v1/"
    /// @throws Refusal with the server's sentence; Failure
    Json get(const std::string& path, const Query& query = {});

    /// Sends JSON, or nothing where `body` is null.
    /// @throws Failure
    Json post(const std::string& path, const JsonValue* body = nullptr);

    /// Removes what is at this path.
    /// @throws Failure
    void remove(const std::string& path);

    /// Gets what comes in pieces, or is no JSON.
    /// @throws Failure, and what `piece` and `watch` throw
    void download(const std::string& path, const Query& query,
                  const std::function<void(std::string_view)>& piece,
                  const std::vector<std::string>& headers = {}, const HttpWatch& watch = {});

    /// All items of the pages of a list, at most `most`.
    Json list(const std::string& path, Query query, std::size_t most);

    /// Id of the agent that a user calls by its id, its name or its host's name.
    /// @throws Failure when there is none, or more than one
    std::string agentId(const std::string& name);

private:
    HttpClient& client;
};

}  // namespace kolvan::client
