#pragma once

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string>

namespace cagnt1 {

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;

/// Parses strict JSON (RFC 8259, encoding not checked) up to the first NUL of `text`, whatever the
/// depth of its nesting. Text that is not JSON gives the value null.
rapidjson::Document parseJson(const std::string& text);

/// The member `name` of `object`, the first of several; null when `object` is no object or has
/// no such member.
const rapidjson::Value* findMember(const rapidjson::Value& object, const char* name);

/// The text of a string value up to its first NUL; empty for a value of another type.
std::string textOf(const rapidjson::Value& value);

/// Starts a text to be written, with room for an ordinary message.
rapidjson::StringBuffer makeJsonBuffer();

/// Writes `text` up to its first NUL as a JSON string.
void writeText(JsonWriter& writer, const std::string& text);

}  // namespace cagnt1
