#pragma once

#include <rapidjson/document.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace kolvan::client {

using Json = rapidjson::Document;
using JsonValue = rapidjson::Value;

/// Reads JSON of the server, whose texts are UTF-8 afterwards.
/// @throws Failure when it is none
Json parseJson(std::string_view text);

/// Writes a value for a program to read: indented, nothing but ASCII in it, a line feed at the end.
std::string jsonText(const JsonValue& value);

/// Member of an object.
/// @throws Failure when there is none
const JsonValue& member(const JsonValue& object, const char* name);

/// Array of an object.
/// @throws Failure when there is none
const JsonValue& arrayOf(const JsonValue& object, const char* name);

/// Text of an object's member; empty where it is null or missing.
std::string textOf(const JsonValue& object, const char* name);

/// Number of an object's member; 0 where there is none.
double numberOf(const JsonValue& object, const char* name);

/// Whether an object's member is true.
bool flagOf(const JsonValue& object, const char* name);

/// Puts an object together.
class JsonObject {
public:
    JsonObject() { document.SetObject(); }

    void set(const char* name, std::string_view text);
    void set(const char* name, const char* text) { set(name, std::string_view(text)); }
    void set(const char* name, std::int64_t number);
    void set(const char* name, double number);
    void set(const char* name, bool flag);
    void set(const char* name, const JsonValue& value);

    const JsonValue& value() const { return document; }

private:
    void add(const char* name, JsonValue value);

    Json document;
};

}  // namespace kolvan::client
