#include "companions/client/Api.h"

#include "companions/client/Failure.h"

#include <algorithm>
#include <cstddef>

namespace kolvan::client {

namespace {

constexpr std::size_t kPageSize = 500;

std::string pathOf(const std::string& path, const Query& query) {
    std::string result = "/api/v1/" + path;
    char separator = '?';
    for (const auto& [name, value] : query) {
        if (!value.empty()) {
            result += separator + name + "=" + percentEncoded(value);
            separator = '&';
        }
    }
    return result;
}

/// The server's own words, where it has some.
void refuse(const HttpResponse& response) {
    if (response.contentType.starts_with("application/problem+json")) {
        const Json problem = parseJson(response.body);
        for (const char* const name : {"detail", "title"}) {
            if (const std::string words = textOf(problem, name); !words.empty()) {
                throw Refusal(response.status, words);
            }
        }
    }
    throw Failure("The server has answered with status " + std::to_string(response.status) +
                  ". Is it a kolvan-server?");
}

void checkStatus(const HttpResponse& response) {
    if (response.status < 200 || response.status > 299) {
        refuse(response);
    }
}

Json answered(const HttpResponse& response) {
    checkStatus(response);
    return parseJson(response.body);
}

}  // namespace

Json Api::get(const std::string& path, const Query& query) {
    return answered(client.send({"GET", pathOf(path, query), {}, {}}));
}

Json Api::post(const std::string& path, const JsonValue* body) {
    return answered(
        client.send({"POST", pathOf(path, {}), body != nullptr ? jsonText(*body) : "", {}}));
}

void Api::remove(const std::string& path) {
    checkStatus(client.send({"DELETE", pathOf(path, {}), {}, {}}));
}

void Api::download(const std::string& path, const Query& query,
                   const std::function<void(std::string_view)>& piece,
                   const std::vector<std::string>& headers, const HttpWatch& watch) {
    checkStatus(client.send({"GET", pathOf(path, query), {}, headers}, piece, watch));
}

Json Api::list(const std::string& path, Query query, std::size_t most) {
    Json all;
    all.SetArray();
    query.emplace_back("limit", std::to_string(std::min(most, kPageSize)));
    query.emplace_back("cursor", "");
    do {
        const Json page = get(path, query);
        for (const JsonValue& item : arrayOf(page, "items").GetArray()) {
            if (all.Size() < most) {
                all.PushBack(JsonValue(item, all.GetAllocator()), all.GetAllocator());
            }
        }
        query.back().second = textOf(page, "next");
    } while (!query.back().second.empty() && all.Size() < most);
    return all;
}

std::string Api::agentId(const std::string& name) {
    const Json agents = list("agents", {}, std::size_t{100'000});
    std::vector<std::string> found;
    for (const JsonValue& agent : agents.GetArray()) {
        if (textOf(agent, "id") == name) {
            return name;
        }
        if (textOf(agent, "name") == name || textOf(agent, "host") == name) {
            found.push_back(textOf(agent, "id"));
        }
    }
    if (found.empty()) {
        throw Failure("There is no agent '" + name +
                      "'; \"kolvan agents\" lists those that there are.");
    }
    if (found.size() > 1) {
        throw Failure("There are " + std::to_string(found.size()) + " agents '" + name +
                      "'; give the id of one, as \"kolvan agents\" shows it.");
    }
    return found.front();
}

}  // namespace kolvan::client
