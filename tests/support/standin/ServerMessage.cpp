#include "tests/support/standin/ServerMessage.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace kolvan::test {
namespace {

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;

void writeText(JsonWriter& writer, const std::string& text) {
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void writeMessage(JsonWriter& writer, const ServerMessage& message) {
    writer.StartObject();
    writer.Key("messageType");
    writeText(writer, message.type);
    writer.Key("messageParameters");
    writer.StartObject();
    for (const auto& [name, value] : message.parameters) {
        writeText(writer, name);
        writeText(writer, value);
    }
    writer.EndObject();
    writer.EndObject();
}

std::string textOf(const rapidjson::Value& value) {
    return value.IsString() ? std::string(value.GetString(), value.GetStringLength())
                            : std::string();
}

}  // namespace

std::string ServerMessage::parameter(const std::string& name) const {
    const auto found = parameters.find(name);
    return found == parameters.end() ? std::string() : found->second;
}

bool ServerMessage::has(const std::string& name) const {
    return parameters.count(name) != 0;
}

namespace messages {

ServerMessage connected() {
    return {"connected", {}};
}

ServerMessage execute(const std::string& id, const std::string& args) {
    return {"collector:execute", {{"id", id}, {"args", args}}};
}

ServerMessage startCollection(const std::string& id, const std::string& options,
                              const std::string& traceUploadDirectory) {
    return {"collector:collection:start",
            {{"id", id}, {"options", options}, {"traceUploadDirectory", traceUploadDirectory}}};
}

ServerMessage collectionCommand(const std::string& id, const std::string& command) {
    return {"collector:collection:command", {{"id", id}, {"command", command}}};
}

ServerMessage cancel() {
    return {"collector:operations:cancel", {}};
}

ServerMessage stop() {
    return {"stop", {}};
}

}  // namespace messages

std::optional<ServerMessage> decodeMessage(std::string_view json) {
    rapidjson::Document document;
    // Iterative, because the text comes from outside: deep nesting must not use up the stack.
    document.Parse<rapidjson::kParseIterativeFlag>(json.data(), json.size());
    const rapidjson::Value& root = document;
    if (document.HasParseError() || !root.IsObject() || !root.HasMember("messageType") ||
        !root["messageType"].IsString()) {
        return std::nullopt;
    }
    ServerMessage message;
    message.type = textOf(root["messageType"]);
    if (root.HasMember("messageParameters") && root["messageParameters"].IsObject()) {
        for (const auto& member : root["messageParameters"].GetObject()) {
            message.parameters[textOf(member.name)] = textOf(member.value);
        }
    }
    return message;
}

std::string encodeMessages(const std::vector<ServerMessage>& messages) {
    rapidjson::StringBuffer buffer;
    JsonWriter writer(buffer);
    writer.StartObject();
    writer.Key("messages");
    writer.StartArray();
    for (const ServerMessage& message : messages) {
        writeMessage(writer, message);
    }
    writer.EndArray();
    writer.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

}  // namespace kolvan::test
