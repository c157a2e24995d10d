#include "companions/server/protocol/AgentMessage.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string_view>

namespace kolvan::server::protocol {
namespace {

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

void writeText(Writer& writer, std::string_view text) {
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

}  // namespace

std::string replyJson(const std::vector<AgentMessage>& messages) {
    rapidjson::StringBuffer buffer;
    Writer writer(buffer);
    writer.StartObject();
    writer.Key("messages");
    writer.StartArray();
    for (const AgentMessage& message : messages) {
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
    writer.EndArray();
    writer.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

namespace messages {

AgentMessage connected() {
    return {"connected", {}};
}

AgentMessage execute(const std::string& id, const std::string& args) {
    return {"collector:execute", {{"id", id}, {"args", args}}};
}

AgentMessage startCollection(const std::string& id, const std::string& options,
                             const std::string& traceUploadDirectory) {
    return {"collector:collection:start",
            {{"id", id}, {"options", options}, {"traceUploadDirectory", traceUploadDirectory}}};
}

AgentMessage collectionCommand(const std::string& id, const std::string& command) {
    return {"collector:collection:command", {{"id", id}, {"command", command}}};
}

AgentMessage cancel() {
    return {"collector:operations:cancel", {}};
}

AgentMessage stop() {
    return {"stop", {}};
}

}  // namespace messages

}  // namespace kolvan::server::protocol
