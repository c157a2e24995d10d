#pragma once

#include "companions/server/http/Awaitable.h"
#include "companions/server/http/Request.h"
#include "companions/server/store/Names.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::server::api {

/// A JSON object that came as a request's body, or stands in one. What is not as the route expects
/// it is a problem with status 400 that names the member.
///
/// @throws http::HttpError
class Body {
public:
    /// Reads a body. @throws http::HttpError with 415 when it is no JSON, by its type
    static http::Awaitable<Body> read(http::Request& request);

    /// Refuses members with other names than these, and two with one name.
    void allow(const std::vector<std::string_view>& names) const;

    /// Refuses null where a change could take it for "nothing" as well as for "as it is".
    void refuseNull(const std::vector<std::string_view>& names) const;

    bool has(std::string_view name) const;

    /// Each nothing where the member is missing or null.
    /// @param most characters of a text, elements of a list
    std::optional<std::string> text(std::string_view name, std::size_t most) const;
    std::optional<bool> truth(std::string_view name) const;
    std::optional<std::int64_t> integer(std::string_view name, std::int64_t least,
                                        std::int64_t most) const;
    std::optional<double> number(std::string_view name, double least, double most) const;
    std::optional<std::vector<std::string>> texts(std::string_view name, std::size_t most) const;
    std::optional<Body> object(std::string_view name) const;

    /// A text that has to be there.
    std::string needText(std::string_view name, std::size_t most) const;

    /// One of a type's words.
    template <Named Value>
    std::optional<Value> word(std::string_view name) const {
        const auto given = text(name, kLongestWord);
        const std::optional<Value> value = given ? valueOf<Value>(*given) : std::nullopt;
        if (given && !value) {
            refuse(name, "may not be \"" + *given + '"');
        }
        return value;
    }

    /// One of them that has to be there.
    template <Named Value>
    Value needWord(std::string_view name) const {
        const std::optional<Value> value = word<Value>(name);
        if (!value) {
            refuse(name, "is missing");
        }
        return *value;
    }

    [[noreturn]] static void refuse(std::string_view name, std::string_view what);

private:
    static constexpr std::size_t kLongestWord = 100;

    struct State;
    explicit Body(std::shared_ptr<const State> ownState);

    std::shared_ptr<const State> state;
};

}  // namespace kolvan::server::api
