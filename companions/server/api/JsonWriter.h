#pragma once

#include "companions/server/base/UtcTime.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kolvan::server::api {

/// Writes one JSON text. Texts are data of strangers: whatever is no UTF-8 in them is replaced.
///
///     JsonWriter json;
///     json.object([&] { json.member("name", agent.name); });
///     return json.text();
class JsonWriter {
public:
    JsonWriter();
    ~JsonWriter();

    JsonWriter(const JsonWriter&) = delete;
    JsonWriter& operator=(const JsonWriter&) = delete;

    /// An object or array, with what `members` writes in it.
    void object(const std::function<void()>& members);
    void array(const std::function<void()>& elements);

    /// A name; its value has to follow.
    void name(std::string_view text);

    void value(std::string_view text);
    void value(const std::string& text) { value(std::string_view(text)); }
    void value(const char* text) { value(std::string_view(text)); }
    void value(bool truth);
    void value(int number) { value(static_cast<std::int64_t>(number)); }
    void value(std::int64_t number);
    void value(std::uint64_t number);
    void value(double number);
    void value(UtcTime time);
    void null();

    template <typename Value>
    void value(const std::optional<Value>& content) {
        if (content) {
            value(*content);
        } else {
            null();
        }
    }

    template <typename Value>
    void member(std::string_view key, const Value& content) {
        name(key);
        value(content);
    }

    /// The text so far.
    std::string text() const;

private:
    struct State;
    const std::unique_ptr<State> state;
};

}  // namespace kolvan::server::api
