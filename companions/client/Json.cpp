#include "companions/client/Json.h"

#include "companions/client/Failure.h"

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <utility>

namespace kolvan::client {

namespace {

const JsonValue* findMember(const JsonValue& object, const char* name) {
    if (!object.IsObject()) {
        return nullptr;
    }
    const auto found = object.FindMember(name);
    return found == object.MemberEnd() ? nullptr : &found->value;
}

[[noreturn]] void refuse(const std::string& what) {
    throw Failure("The server's answer makes no sense: " + what + ".");
}

}  // namespace

Json parseJson(std::string_view text) {
    Json document;
    // Without recursion: how deep it is, is the server's choice.
    document.Parse<rapidjson::kParseValidateEncodingFlag | rapidjson::kParseIterativeFlag>(
        text.data(), text.size());
    if (document.HasParseError()) {
        refuse("it is no JSON");
    }
    return document;
}

std::string jsonText(const JsonValue& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::PrettyWriter<rapidjson::StringBuffer, rapidjson::UTF8<>, rapidjson::ASCII<>> writer(
        buffer);
    writer.SetIndent(' ', 2);
    value.Accept(writer);
    return std::string(buffer.GetString(), buffer.GetSize()) + "\n";
}

const JsonValue& member(const JsonValue& object, const char* name) {
    const JsonValue* const found = findMember(object, name);
    if (found == nullptr) {
        refuse("'" + std::string(name) + "' is missing");
    }
    return *found;
}

const JsonValue& arrayOf(const JsonValue& object, const char* name) {
    const JsonValue& value = member(object, name);
    if (!value.IsArray()) {
        refuse("'" + std::string(name) + "' is no list");
    }
    return value;
}

std::string textOf(const JsonValue& object, const char* name) {
    const JsonValue* const value = findMember(object, name);
    return value != nullptr && value->IsString()
               ? std::string(value->GetString(), value->GetStringLength())
               : std::string();
}

double numberOf(const JsonValue& object, const char* name) {
    const JsonValue* const value = findMember(object, name);
    return value != nullptr && value->IsNumber() ? value->GetDouble() : 0;
}

bool flagOf(const JsonValue& object, const char* name) {
    const JsonValue* const value = findMember(object, name);
    return value != nullptr && value->IsTrue();
}

void JsonObject::add(const char* name, JsonValue value) {
    document.AddMember(JsonValue(name, document.GetAllocator()), std::move(value),
                       document.GetAllocator());
}

void JsonObject::set(const char* name, std::string_view text) {
    add(name, JsonValue(text.data(), static_cast<rapidjson::SizeType>(text.size()),
                        document.GetAllocator()));
}

void JsonObject::set(const char* name, std::int64_t number) {
    add(name, JsonValue(number));
}

void JsonObject::set(const char* name, double number) {
    add(name, JsonValue(number));
}

void JsonObject::set(const char* name, bool flag) {
    add(name, JsonValue(flag));
}

void JsonObject::set(const char* name, const JsonValue& value) {
    add(name, JsonValue(value, document.GetAllocator()));
}

}  // namespace kolvan::client
