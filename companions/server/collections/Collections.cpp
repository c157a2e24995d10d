#include "companions/server/collections/Collections.h"

#include "companions/server/base/Hex.h"
#include "companions/server/base/Random.h"
#include "companions/server/base/Sha256.h"
#include "companions/server/collections/CollectorOptions.h"
#include "companions/server/protocol/AgentMessage.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <array>
#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

namespace kolvan::server {

namespace {

/// What is kept of a message until it is sent: all but its id, which is the operation's.
NewOperation operationOf(OperationKind kind, const protocol::AgentMessage& message) {
    rapidjson::StringBuffer text;
    rapidjson::Writer<rapidjson::StringBuffer> writer(text);
    writer.StartObject();
    for (const auto& [name, value] : message.parameters) {
        if (name != "id") {
            writer.Key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
            writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
        }
    }
    writer.EndObject();
    NewOperation operation;
    operation.kind = kind;
    operation.messageType = message.type;
    operation.parameters.assign(text.GetString(), text.GetSize());
    return operation;
}

std::string parameterOf(const Operation& operation, const char* name) {
    rapidjson::Document document;
    document.Parse(operation.parameters.data(), operation.parameters.size());
    if (!document.IsObject()) {
        return {};
    }
    const auto found = document.FindMember(name);
    return found != document.MemberEnd() && found->value.IsString()
               ? std::string(found->value.GetString(), found->value.GetStringLength())
               : std::string();
}

std::string newSecret() {
    std::array<std::byte, 16> bytes{};
    fillWithRandomBytes(bytes);
    return toHex(bytes);
}

NewOperation commandOperation(const std::string& word) {
    return operationOf(OperationKind::CollectionCommand,
                       protocol::messages::collectionCommand("", word));
}

/// The parts of a path before and behind its first `count` slashes.
std::pair<std::string_view, std::string_view> splitBehind(std::string_view path, int count) {
    std::size_t end = 0;
    for (int i = 0; i < count; ++i) {
        end = path.find('/', i == 0 ? 0 : end + 1);
        if (end == std::string_view::npos) {
            return {path, {}};
        }
    }
    return {path.substr(0, end), path.substr(end + 1)};
}

}  // namespace

Collections::Collections(Store& recordStore, const OutputFiles& outputFiles,
                         const UploadedFiles& uploadedFiles)
    : store(recordStore), outputs(outputFiles), uploads(uploadedFiles) {}

Collection Collections::start(const NewCollection& collection) {
    const NewOperation operation =
        operationOf(OperationKind::Collection,
                    protocol::messages::startCollection("", collectorOptions(collection.request),
                                                        collection.id.text + '/' + newSecret()));
    return store.collections().create(collection, operation);
}

Asked Collections::stop(const CollectionId& collection) {
    return store.collections().stop(collection, commandOperation("stop"));
}

Asked Collections::cancel(const CollectionId& collection) {
    return store.collections().cancel(collection, commandOperation("cancel"));
}

Asked Collections::command(const CollectionId& collection, const std::string& word) {
    return store.collections().command(collection, commandOperation(word));
}

Asked Collections::sendAgain(const CollectionId& collection) {
    const std::optional<Collection> found = store.collections().find(collection);
    if (!found) {
        return Asked::NotFound;
    }
    return store.operations().sendAgain(found->start) ? Asked::Yes : Asked::TooLate;
}

Asked Collections::remove(const CollectionId& collection) {
    const std::optional<Collection> found = store.collections().find(collection);
    if (!found) {
        return Asked::NotFound;
    }
    if (!isFinal(found->state)) {
        return Asked::TooLate;
    }
    // The contents first: a collection without files can be removed once more, files without a
    // collection nobody would find.
    uploads.remove(collection);
    outputs.remove(found->start);
    return store.collections().remove(collection);
}

std::optional<UploadPlace> Collections::placeOf(const std::string& path) const {
    const auto [given, name] = splitBehind(path, 2);
    const CollectionId id{std::string(splitBehind(path, 1).first)};
    const std::optional<Collection> collection = store.collections().find(id);
    const std::optional<Operation> start =
        collection ? store.operations().find(collection->start) : std::nullopt;
    if (!start || name.empty()) {
        return std::nullopt;
    }
    // Compared by their digests, so that the time that it takes tells nothing of the secret.
    const std::string asked = parameterOf(*start, "traceUploadDirectory");
    if (!equalInConstantTime(sha256(asked), sha256(given))) {
        return std::nullopt;
    }
    return UploadPlace{id, collection->agent, std::string(name)};
}

}  // namespace kolvan::server
