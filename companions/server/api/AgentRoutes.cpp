#include "companions/server/api/AgentRoutes.h"

#include "companions/server/api/Query.h"
#include "companions/server/api/RecordJson.h"
#include "companions/server/collections/CollectorOptions.h"
#include "companions/server/http/HttpError.h"
#include "companions/server/http/OnPool.h"

#include <rapidjson/document.h>

#include <utility>

namespace kolvan::server::api {

namespace {

using http::Awaitable;
using http::Response;

/// A list of a large machine; what is longer was written by no collector of ours.
constexpr std::uint64_t kMostOfAList = std::uint64_t{16} << 20U;

Agent agentOf(const Surroundings& parts, const std::string& id) {
    const std::optional<Agent> agent = parts.store.agents().find(AgentId(id));
    if (!agent) {
        throw http::HttpError(404, "There is no agent with this id.");
    }
    return *agent;
}

std::string textOf(const rapidjson::Value& object, const char* name) {
    const auto found = object.FindMember(name);
    return found != object.MemberEnd() && found->value.IsString()
               ? std::string(found->value.GetString(), found->value.GetStringLength())
               : std::string();
}

template <typename Number>
Number numberOf(const rapidjson::Value& object, const char* name) {
    const auto found = object.FindMember(name);
    return found != object.MemberEnd() && found->value.Is<Number>() ? found->value.Get<Number>()
                                                                    : Number();
}

void writeProcess(JsonWriter& json, const rapidjson::Value& process) {
    const auto profilable = process.FindMember("profilable");
    const auto cpu = process.FindMember("cpu");
    json.object([&] {
        json.member("pid", numberOf<std::int64_t>(process, "pid"));
        json.member("user", textOf(process, "user"));
        json.member("command", textOf(process, "command"));
        json.member("cpu", cpu != process.MemberEnd() && cpu->value.IsNumber()
                               ? cpu->value.GetDouble()
                               : 0.0);
        json.member("threads", numberOf<std::int64_t>(process, "threads"));
        json.member("profilable", profilable != process.MemberEnd() && profilable->value.IsBool() &&
                                      profilable->value.GetBool());
        json.member("reason", textOf(process, "reason"));
        json.member("help", textOf(process, "help"));
    });
}

/// What an agent has answered: the list, or why there is none.
struct Answer {
    std::shared_ptr<rapidjson::Document> processes;
    std::string error;
};

Answer answerOf(const Surroundings& parts, const Operation& operation) {
    if (operation.exitCode != 0) {
        std::string reason = operation.errorMessage;
        if (reason.empty()) {
            reason.resize(1000);
            reason.resize(parts.outputs.read(operation.id, OutputChannel::Stderr, 0, reason));
        }
        return {nullptr, reason.empty() ? "The collector could not list them." : reason};
    }
    const std::uint64_t size = parts.outputs.size(operation.id, OutputChannel::Stdout);
    std::string text(size > kMostOfAList ? 0 : size, '\0');
    text.resize(parts.outputs.read(operation.id, OutputChannel::Stdout, 0, text));
    auto document = std::make_shared<rapidjson::Document>();
    document->Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
    if (document->HasParseError() || !document->IsArray()) {
        return {nullptr, "The collector's list cannot be read."};
    }
    return {std::move(document), {}};
}

std::string processesJson(const Surroundings& parts, const AgentId& agent) {
    const std::optional<Operation> operation =
        parts.store.operations().findLatest(agent, OperationKind::ProcessList);
    Answer answer;
    const char* state = operation ? "waiting" : "none";
    if (operation && operation->state == OperationState::Abandoned) {
        answer.error = operation->errorMessage;
    } else if (operation && operation->state == OperationState::Finished) {
        answer = answerOf(parts, *operation);
        state = "done";
    }
    if (!answer.error.empty()) {
        state = "failed";
    }

    JsonWriter json;
    json.object([&] {
        json.member("state", state);
        json.member("asked", operation ? std::optional(operation->queued) : std::nullopt);
        json.member("answered", answer.processes ? operation->ended : std::nullopt);
        json.member("error", answer.error.empty() ? std::nullopt : std::optional(answer.error));
        json.name("processes");
        json.array([&] {
            if (answer.processes) {
                for (const rapidjson::Value& process : answer.processes->GetArray()) {
                    if (process.IsObject()) {
                        writeProcess(json, process);
                    }
                }
            }
        });
    });
    return json.text();
}

void askForProcesses(const Surroundings& parts, const AgentId& agent) {
    const std::optional<Operation> asked =
        parts.store.operations().findLatest(agent, OperationKind::ProcessList);
    const bool waits =
        asked && (asked->state == OperationState::Queued || asked->state == OperationState::Taken ||
                  asked->state == OperationState::Running);
    if (waits) {
        return;  // several who ask get the same answer
    }
    NewOperation operation;
    operation.kind = OperationKind::ProcessList;
    operation.messageType = "collector:execute";
    operation.parameters = std::string(R"({"args":")") + kListProcesses + "\"}";
    parts.store.operations().enqueue(agent, operation);
}

}  // namespace

void addAgentRoutes(Api& api, http::Router& router) {
    const Surroundings& parts = api.parts();

    api.add(router, "GET", "/api/v1/agents", Permission::Look,
            [&parts](http::Request& request, const Caller&) -> Awaitable<Response> {
                const Query query(request, {"presence", "text", "cursor", "limit"});
                const AgentFilter filter{query.word<AgentPresence>("presence"),
                                         query.text("text").value_or("")};
                const PageRequest page = query.page();
                const auto list = [&] { return parts.store.agents().list(filter, page); };
                co_return http::jsonResponse(
                    pageJson(co_await http::onPool(parts.threads, list), writeAgent));
            });

    api.add(router, "GET", "/api/v1/agents/{agent}", Permission::Look,
            [&parts](http::Request& request, const Caller&) -> Awaitable<Response> {
                const auto find = [&] { return agentOf(parts, request.place("agent")); };
                co_return http::jsonResponse(
                    recordJson(co_await http::onPool(parts.threads, find), writeAgent));
            });

    api.add(router, "GET", "/api/v1/agents/{agent}/processes", Permission::Look,
            [&parts](http::Request& request, const Caller&) -> Awaitable<Response> {
                const auto show = [&] {
                    return processesJson(parts, agentOf(parts, request.place("agent")).id);
                };
                co_return http::jsonResponse(co_await http::onPool(parts.threads, show));
            });

    api.add(router, "POST", "/api/v1/agents/{agent}/processes", Permission::Collect,
            [&parts](http::Request& request, const Caller&) -> Awaitable<Response> {
                const auto ask = [&] {
                    const AgentId agent = agentOf(parts, request.place("agent")).id;
                    askForProcesses(parts, agent);
                    return processesJson(parts, agent);
                };
                co_return http::jsonResponse(co_await http::onPool(parts.threads, ask), 202);
            });
}

}  // namespace kolvan::server::api
