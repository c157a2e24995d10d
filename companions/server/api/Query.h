#pragma once

#include "companions/server/http/Request.h"
#include "companions/server/store/Names.h"
#include "companions/server/store/Records.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::server::api {

/// What the query of a request asks for. A name or value that makes no sense is a problem with
/// status 400 that names it, and never passed over: a filter with a slip of the pen would otherwise
/// show everything.
///
/// @throws http::HttpError with status 400
class Query {
public:
    /// @param allowed the names that the route knows
    Query(const http::Request& request, std::vector<std::string_view> allowed);

    /// The value of a name, of which there may be one.
    std::optional<std::string> text(std::string_view name) const;

    /// All values of a name.
    std::vector<std::string> texts(std::string_view name) const;

    std::optional<std::int64_t> number(std::string_view name, std::int64_t least,
                                       std::int64_t most) const;
    std::optional<UtcTime> time(std::string_view name) const;

    template <Named Value>
    std::optional<Value> word(std::string_view name) const {
        const auto given = text(name);
        return given ? std::optional(wordOf<Value>(name, *given)) : std::nullopt;
    }

    template <Named Value>
    std::vector<Value> words(std::string_view name) const {
        std::vector<Value> values;
        for (const std::string& given : texts(name)) {
            values.push_back(wordOf<Value>(name, given));
        }
        return values;
    }

    /// "cursor" and "limit" of a list.
    PageRequest page() const;

private:
    template <Named Value>
    static Value wordOf(std::string_view name, const std::string& given) {
        const std::optional<Value> value = valueOf<Value>(given);
        if (!value) {
            refuse(name, given);
        }
        return *value;
    }

    [[noreturn]] static void refuse(std::string_view name, const std::string& value);

    http::Query pairs;
};

}  // namespace kolvan::server::api
