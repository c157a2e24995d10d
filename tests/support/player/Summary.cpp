#include "tests/support/player/Summary.h"

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string_view>

namespace kolvan::test {
namespace {

/// The JSON writer with the calls that a summary is made of.
class SummaryWriter {
public:
    void open() { json.StartObject(); }
    void close() { json.EndObject(); }

    void key(std::string_view name) { json.Key(name.data(), length(name)); }
    void text(std::string_view value) { json.String(value.data(), length(value)); }

    void member(std::string_view name, std::string_view value) {
        key(name);
        text(value);
    }
    // Its own name: a character pointer would rather become a truth value than a text.
    void flag(std::string_view name, bool value) {
        key(name);
        json.Bool(value);
    }
    void number(std::string_view name, std::uint64_t value) {
        key(name);
        json.Uint64(value);
    }
    void signedNumber(std::string_view name, int value) {
        key(name);
        json.Int(value);
    }

    template <typename Items, typename WriteItem>
    void list(std::string_view name, const Items& items, WriteItem&& writeItem) {
        key(name);
        json.StartArray();
        for (const auto& item : items) {
            writeItem(item);
        }
        json.EndArray();
    }

    std::string result() const { return std::string(buffer.GetString(), buffer.GetSize()) + "\n"; }

private:
    static rapidjson::SizeType length(std::string_view text) {
        return static_cast<rapidjson::SizeType>(text.size());
    }

    rapidjson::StringBuffer buffer;
    rapidjson::PrettyWriter<rapidjson::StringBuffer> json{buffer};
};

std::string kindName(const std::string& messageType) {
    static const std::map<std::string, std::string> names = {
        {"collector:execute", "execute"},
        {"collector:collection:start", "collection"},
        {"collector:collection:command", "command"},
    };
    const auto found = names.find(messageType);
    return found == names.end() ? messageType : found->second;
}

void writeAgent(SummaryWriter& writer, const Transcript& transcript) {
    writer.key("agent");
    writer.open();
    for (const ReceivedMessage& received : transcript) {
        if (received.tokenAccepted && received.message.type == "connect") {
            writer.member("hostname", received.message.parameter("hostname"));
            writer.member("uuid", received.message.parameter("agentUuid"));
            break;
        }
    }
    writer.close();
}

void writeOperation(SummaryWriter& writer, const OperationRecord& operation) {
    writer.open();
    writer.member("id", operation.id);
    writer.member("kind", kindName(operation.kind));
    writer.flag("finished", !operation.results.empty());
    if (!operation.results.empty()) {
        const OperationResult& result = operation.results.front();
        if (result.code) {
            writer.signedNumber("code", *result.code);
        }
        if (result.errorMessage) {
            writer.member("errorMessage", *result.errorMessage);
        }
    }
    writer.key("channels");
    writer.open();
    for (const Channel channel : kChannels) {
        writer.key(channelName(channel));
        writer.open();
        writer.number("messages", operation.channel(channel).messages);
        writer.number("bytes", operation.channel(channel).bytes);
        writer.close();
    }
    writer.close();
    writer.close();
}

void writeUpload(SummaryWriter& writer, const UploadRecord& upload) {
    writer.open();
    writer.member("remoteDirectory", upload.remoteDirectory);
    writer.member("fileName", upload.fileName);
    writer.member("path", upload.storedPath.native());
    writer.number("size", upload.size);
    writer.close();
}

void writePackage(SummaryWriter& writer, const PackageRequest& package) {
    writer.open();
    writer.member("name", package.name);
    writer.flag("found", package.found);
    writer.close();
}

}  // namespace

std::string summaryJson(const std::string& endpoint, const ServerRecords& records,
                        const std::vector<ScenarioStep>& steps, const ScenarioOutcome& outcome) {
    SummaryWriter writer;
    writer.open();
    writer.flag("succeeded", outcome.succeeded());
    writer.member("problem", outcome.problem);
    writer.member("endpoint", endpoint);
    writeAgent(writer, records.transcript);
    writer.flag("disconnected", records.count("disconnect") != 0);
    writer.list("packages", records.packageRequests,
                [&](const PackageRequest& package) { writePackage(writer, package); });
    writer.list("operations", records.operations.all(),
                [&](const OperationRecord& operation) { writeOperation(writer, operation); });
    writer.list("uploads", records.uploads,
                [&](const UploadRecord& upload) { writeUpload(writer, upload); });
    std::size_t played = 0;
    writer.list("steps", steps, [&](const ScenarioStep& step) {
        writer.open();
        writer.number("line", step.line);
        writer.member("text", step.text);
        writer.flag("happened", played++ < outcome.stepsPlayed);
        writer.close();
    });
    writer.list("protocolErrors", records.protocolErrors,
                [&](const std::string& problem) { writer.text(problem); });
    writer.close();
    return writer.result();
}

}  // namespace kolvan::test
