#include "companions/server/api/JsonWriter.h"

#include "companions/server/base/Utf8.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cmath>

namespace kolvan::server::api {

struct JsonWriter::State {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer{buffer};
};

JsonWriter::JsonWriter() : state(std::make_unique<State>()) {}

JsonWriter::~JsonWriter() = default;

void JsonWriter::object(const std::function<void()>& members) {
    state->writer.StartObject();
    members();
    state->writer.EndObject();
}

void JsonWriter::array(const std::function<void()>& elements) {
    state->writer.StartArray();
    elements();
    state->writer.EndArray();
}

void JsonWriter::name(std::string_view text) {
    state->writer.Key(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void JsonWriter::value(std::string_view text) {
    const std::string valid = validUtf8(text);
    state->writer.String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
}

void JsonWriter::value(bool truth) {
    state->writer.Bool(truth);
}

void JsonWriter::value(std::int64_t number) {
    state->writer.Int64(number);
}

void JsonWriter::value(std::uint64_t number) {
    state->writer.Uint64(number);
}

void JsonWriter::value(double number) {
    if (std::isfinite(number)) {
        state->writer.Double(number);
    } else {
        null();  // there is no other word for it in JSON
    }
}

void JsonWriter::value(UtcTime time) {
    value(toRfc3339(time));
}

void JsonWriter::null() {
    state->writer.Null();
}

std::string JsonWriter::text() const {
    return {state->buffer.GetString(), state->buffer.GetSize()};
}

}  // namespace kolvan::server::api
