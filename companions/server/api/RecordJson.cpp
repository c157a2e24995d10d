#include "companions/server/api/RecordJson.h"

#include "companions/server/store/Names.h"

#include <chrono>
#include <optional>

namespace kolvan::server::api {

namespace {

std::optional<std::string> unlessEmpty(const std::string& text) {
    return text.empty() ? std::nullopt : std::optional(text);
}

void writeTarget(JsonWriter& json, const CollectionRequest& request) {
    json.object([&] {
        if (request.pid) {
            json.member("pid", *request.pid);
            return;
        }
        json.name("command");
        json.array([&] {
            for (const std::string& argument : request.command) {
                json.value(argument);
            }
        });
    });
}

}  // namespace

void writeAgent(JsonWriter& json, const Agent& agent) {
    json.object([&] {
        json.member("id", agent.id.text);
        json.member("name", agent.name);
        json.member("host", agent.hostName);
        json.member("presence", nameOf(agent.presence));
        json.member("address", agent.address);
        json.member("collectorVersion", unlessEmpty(agent.collectorVersion));
        json.member("firstSeen", agent.firstSeen);
        json.member("lastSeen", agent.lastSeen);
    });
}

void writeCollectionFile(JsonWriter& json, const CollectionFile& file) {
    json.object([&] {
        json.member("name", file.name);
        json.member("size", file.sizeBytes);
        json.member("complete", file.complete);
        json.member("changed", file.changed);
    });
}

void writeSymbols(JsonWriter& json, const symbols::Symbols& symbols) {
    json.object([&] {
        json.member("buildId", symbols.buildId);
        json.member("name", symbols.name);
        json.member("size", symbols.sizeBytes);
        json.member("added", symbols.added);
    });
}

void writeUser(JsonWriter& json, const User& user) {
    json.object([&] {
        json.member("id", user.id.text);
        json.member("name", user.name);
        json.member("role", nameOf(user.role));
        json.member("made", user.made);
    });
}

void writeToken(JsonWriter& json, const ShownToken& token) {
    json.object([&] {
        json.member("id", token.id);
        json.member("name", token.name);
        json.member("kind", token.role ? "api" : "agent");
        json.member("role", token.role ? std::optional(nameOf(*token.role)) : std::nullopt);
        json.member("shared", token.shared);
        json.member("made", token.made);
        json.member("lastUsed", token.lastUsed);
        json.member("revoked", token.revoked);
        if (token.text) {
            json.member("token", *token.text);
        }
    });
}

void writeAuditLine(JsonWriter& json, const AuditLine& line) {
    json.object([&] {
        json.member("number", line.number);
        json.member("time", line.time);
        json.member("actor", line.actor);
        json.member("address", line.address);
        json.member("action", line.action);
        json.member("subject", line.subject);
        json.member("detail", line.detail);
    });
}

void writeCollection(JsonWriter& json, const ShownCollection& shown) {
    const Collection& collection = shown.collection;
    const CollectionRequest& request = collection.request;
    std::optional<double> seconds;
    if (request.duration) {
        seconds = std::chrono::duration<double>(*request.duration).count();
    }
    json.object([&] {
        json.member("id", collection.id.text);
        json.member("agent", collection.agent.text);
        json.member("agentName", shown.agentName);
        json.member("name", collection.name);
        json.member("note", collection.note);
        json.name("target");
        writeTarget(json, request);
        json.member("profile", request.profile);
        json.member("frequency", request.frequency);
        json.member("durationSeconds", seconds);
        json.member("children", request.children);
        json.member("state", nameOf(collection.state));
        json.member("notConfirmed", shown.notConfirmed);
        json.member("exitCode", collection.exitCode);
        json.member("error", unlessEmpty(collection.errorMessage));
        json.member("hasProfile", shown.hasProfile);
        json.member("madeBy", collection.madeBy);
        json.member("made", collection.made);
        json.member("started", collection.startConfirmed);
        json.member("ended", collection.ended);
    });
}

}  // namespace kolvan::server::api
