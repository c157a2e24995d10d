#include "server/MessageJson.h"

#include "server/JsonText.h"

#include <stdexcept>

namespace cagnt1 {

namespace {

constexpr const char* kType = "messageType";
constexpr const char* kParameters = "messageParameters";
constexpr const char* kMessages = "messages";

void writeMessage(JsonWriter& writer, const Message& message) {
    writer.StartObject();
    writer.Key(kType);
    writeText(writer, message.type);
    writer.Key(kParameters);
    writer.StartObject();
    for (const auto& [name, value] : message.parameters) {
        writeText(writer, name);
        writeText(writer, value);
    }
    writer.EndObject();
    writer.EndObject();
}

Message readMessage(const rapidjson::Value& element) {
    const rapidjson::Value* type = findMember(element, kType);
    if (type == nullptr || !type->IsString()) {
        throw std::logic_error("Message without a type");
    }
    Message message{textOf(*type), {}};
    const rapidjson::Value* parameters = findMember(element, kParameters);
    if (parameters != nullptr && parameters->IsObject()) {
        for (const auto& parameter : parameters->GetObject()) {
            message.parameters[textOf(parameter.name)] = textOf(parameter.value);
        }
    }
    return message;
}

}  // namespace

std::string messageToJson(const Message& message) {
    rapidjson::StringBuffer buffer = makeJsonBuffer();
    JsonWriter writer(buffer);
    writeMessage(writer, message);
    return {buffer.GetString(), buffer.GetSize()};
}

std::string messagesToJson(const std::vector<Message>& messages) {
    rapidjson::StringBuffer buffer = makeJsonBuffer();
    JsonWriter writer(buffer);
    writer.StartObject();
    writer.Key(kMessages);
    writer.StartArray();
    for (const Message& message : messages) {
        writeMessage(writer, message);
    }
    writer.EndArray();
    writer.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

std::vector<Message> messagesFromJson(const std::string& json) {
    const rapidjson::Document document = parseJson(json);
    std::vector<Message> messages;
    const rapidjson::Value* elements = findMember(document, kMessages);
    if (elements != nullptr && elements->IsArray()) {
        messages.reserve(elements->Size());
        for (const rapidjson::Value& element : elements->GetArray()) {
            messages.push_back(readMessage(element));
        }
    }
    return messages;
}

}  // namespace cagnt1
