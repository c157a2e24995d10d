#include "companions/server/api/Query.h"

#include "companions/server/http/HttpError.h"

#include <algorithm>
#include <charconv>

namespace kolvan::server::api {

namespace {

constexpr std::int64_t kMostOnAPage = 500;

}  // namespace

Query::Query(const http::Request& request, std::vector<std::string_view> allowed)
    : pairs(request.query()) {
    for (const auto& [name, value] : pairs) {
        if (std::find(allowed.begin(), allowed.end(), name) == allowed.end()) {
            throw http::HttpError(400, "There is no parameter \"" + name + "\" here.");
        }
    }
}

std::optional<std::string> Query::text(std::string_view name) const {
    const std::vector<std::string> values = texts(name);
    if (values.size() > 1) {
        throw http::HttpError(400, "\"" + std::string(name) + "\" may be given once.");
    }
    return values.empty() ? std::nullopt : std::optional(values.front());
}

std::vector<std::string> Query::texts(std::string_view name) const {
    std::vector<std::string> values;
    for (const auto& [key, value] : pairs) {
        if (key == name) {
            values.push_back(value);
        }
    }
    return values;
}

std::optional<std::int64_t> Query::number(std::string_view name, std::int64_t least,
                                          std::int64_t most) const {
    const auto given = text(name);
    if (!given) {
        return std::nullopt;
    }
    std::int64_t number = 0;
    const char* const end = given->data() + given->size();
    const auto [stopped, error] = std::from_chars(given->data(), end, number);
    if (error != std::errc() || stopped != end || number < least || number > most) {
        refuse(name, *given);
    }
    return number;
}

std::optional<UtcTime> Query::time(std::string_view name) const {
    const auto given = text(name);
    if (!given) {
        return std::nullopt;
    }
    const std::optional<UtcTime> time = fromRfc3339(*given);
    if (!time) {
        refuse(name, *given);
    }
    return time;
}

PageRequest Query::page() const {
    PageRequest page;
    page.size = static_cast<std::size_t>(
        number("limit", 1, kMostOnAPage).value_or(static_cast<std::int64_t>(page.size)));
    page.after = text("cursor").value_or("");
    return page;
}

void Query::refuse(std::string_view name, const std::string& value) {
    throw http::HttpError(400, "\"" + value + "\" is no value for \"" + std::string(name) + "\".");
}

}  // namespace kolvan::server::api
