#include "server/MessageJson.h"

#include "server/JsonText.h"

#include <cstddef>
#include <stdexcept>

namespace cagnt1 {

namespace {

constexpr const char* kType = "messageType";
constexpr const char* kParameters = "messageParameters";
constexpr const char* kMessages = "messages";

// Enough for everything in an ordinary message but the texts of its parameters.
constexpr std::size_t kInitialCapacity = 256;

constexpr const char* kMessageEnd = "}}";

// Everything but the end, so that more parameters can follow. Names and values of messages end at
// their first NUL.
void beginMessage(std::string& json, const Message& message) {
    json += R"({"messageType":)";
    appendText(json, message.type.c_str());
    json += R"(,"messageParameters":{)";
    const char* separator = "";
    for (const auto& [name, value] : message.parameters) {
        json += separator;
        appendText(json, name.c_str());
        json += ':';
        appendText(json, value.c_str());
        separator = ",";
    }
}

void appendMessage(std::string& json, const Message& message) {
    beginMessage(json, message);
    json += kMessageEnd;
}

// Reserved in advance, so that a large text is not moved while the JSON grows.
std::size_t expectedSize(const Message& message) {
    std::size_t size = kInitialCapacity;
    for (const auto& parameter : message.parameters) {
        size += parameter.first.size() + parameter.second.size();
    }
    return size;
}

Message readMessage(const JsonValue& element) {
    const JsonValue* type = findMember(element, kType);
    if (type == nullptr || !type->IsString()) {
        throw std::logic_error("Message without a type");
    }
    Message message{textOf(*type), {}};
    const JsonValue* parameters = findMember(element, kParameters);
    if (parameters != nullptr && parameters->IsObject()) {
        for (const auto& parameter : parameters->GetObject()) {
            message.parameters[textOf(parameter.name)] = textOf(parameter.value);
        }
    }
    return message;
}

}  // namespace

std::string messageToJson(const Message& message) {
    std::string json;
    json.reserve(expectedSize(message));
    appendMessage(json, message);
    return json;
}

std::vector<std::string> messageToJsonAround(Message message,
                                             const std::vector<std::string>& openNames) {
    for (const std::string& name : openNames) {
        message.parameters.erase(name);
    }
    std::vector<std::string> pieces(1);
    beginMessage(pieces.back(), message);
    const char* separator = message.parameters.empty() ? "" : ",";
    for (const std::string& name : openNames) {
        pieces.back() += separator;
        appendText(pieces.back(), name.c_str());
        pieces.back() += ":\"";
        pieces.emplace_back("\"");
        separator = ",";
    }
    pieces.back() += kMessageEnd;
    return pieces;
}

std::string messagesToJson(const std::vector<Message>& messages) {
    std::string json = R"({"messages":[)";
    const char* separator = "";
    for (const Message& message : messages) {
        json += separator;
        appendMessage(json, message);
        separator = ",";
    }
    json += "]}";
    return json;
}

std::vector<Message> messagesFromJson(const std::string& json) {
    const JsonDocument document = parseJson(json);
    std::vector<Message> messages;
    const JsonValue* elements = findMember(document, kMessages);
    if (elements != nullptr && elements->IsArray()) {
        messages.reserve(elements->Size());
        for (const JsonValue& element : elements->GetArray()) {
            messages.push_back(readMessage(element));
        }
    }
    return messages;
}

}  // namespace cagnt1
