#include "companions/server/api/AgentRoutes.h"

#include "companions/server/api/Query.h"
#include "companions/server/api/RecordJson.h"
#include "companions/server/collections/CollectorOptions.h"
#include "companions/server/http/HttpError.h"
#include "companions/server/http/OnPool.h"

#include <rapidjson/document.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <utility>

namespace kolvan::server::api {

namespace {

using http::Awaitable;
using http::Response;

/// A list of a machine with tens of thousands of processes. As a document it takes eight times as
/// much for a moment.
constexpr std::uint64_t kMostOfAList = std::uint64_t{8} << 20U;

/// How much is shown of what a collector complains.
constexpr std::size_t kMostOfAReason = 1000;

/// A list takes a collector about a second. After this time without an answer it may have been
/// lost, so that it makes sense to ask again.
constexpr std::chrono::seconds kPatience{30};

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
        json.member("pid", numberOf<std::uint64_t>(process, "pid"));
        json.member("user", textOf(process, "user"));
        json.member("command", textOf(process, "command"));
        json.member("cpu", cpu != process.MemberEnd() && cpu->value.IsNumber()
                               ? std::max(cpu->value.GetDouble(), 0.0)
                               : 0.0);
        json.member("threads", numberOf<std::uint64_t>(process, "threads"));
        json.member("profilable", profilable != process.MemberEnd() && profilable->value.IsBool() &&
                                      profilable->value.GetBool());
        json.member("reason", textOf(process, "reason"));
        json.member("help", textOf(process, "help"));
    });
}

using Processes = std::shared_ptr<const rapidjson::Document>;

/// What an agent has sent is no list. Its text is a sentence for whoever asked.
struct UnreadableList : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The list that an operation has brought.
/// @throws UnreadableList
Processes readProcesses(const Surroundings& parts, const Operation& operation) {
    const std::uint64_t size = parts.outputs.size(operation.id, OutputChannel::Stdout);
    if (size > kMostOfAList) {
        throw UnreadableList("The collector's list has more than " +
                             std::to_string(kMostOfAList >> 20U) + " MiB.");
    }
    std::string text(size, '\0');
    text.resize(parts.outputs.read(operation.id, OutputChannel::Stdout, 0, text));
    auto document = std::make_shared<rapidjson::Document>();
    document->Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
    if (document->HasParseError() || !document->IsArray()) {
        throw UnreadableList("The collector's list cannot be read.");
    }
    return document;
}

std::string whyItFailed(const Surroundings& parts, const Operation& operation) {
    std::string reason = operation.errorMessage;
    if (reason.empty()) {
        reason.resize(kMostOfAReason);
        reason.resize(parts.outputs.read(operation.id, OutputChannel::Stderr, 0, reason));
    }
    return reason.empty() ? "The collector could not list them." : reason;
}

/// What is shown of the processes of an agent's machine.
struct ShownProcesses {
    const char* state = "none";
    std::optional<UtcTime> asked;
    std::optional<UtcTime> answered;
    std::optional<std::string> error;
    Processes processes;  // null: there are none to be shown
};

bool hasSucceeded(const Operation& operation) {
    return operation.state == OperationState::Finished && operation.exitCode == 0;
}

/// Whether an answer may still come.
bool isOpen(const Operation& operation) {
    return !operation.ended;
}

ShownProcesses findProcesses(const Surroundings& parts, const AgentId& agent) {
    ShownProcesses found;
    const auto latest = parts.store.operations().findLatest(agent, OperationKind::ProcessList);
    if (!latest) {
        return found;
    }
    found.asked = latest->queued;
    found.state = isOpen(*latest) ? "waiting" : hasSucceeded(*latest) ? "done" : "failed";
    if (!isOpen(*latest) && !hasSucceeded(*latest)) {
        found.error = whyItFailed(parts, *latest);
    }
    const auto good = parts.store.operations().findLatestDone(agent, OperationKind::ProcessList);
    if (!good) {
        return found;
    }
    try {
        found.processes = readProcesses(parts, *good);
        found.answered = good->ended;
    } catch (const UnreadableList& unreadable) {
        if (good->id == latest->id) {
            found.state = "failed";
            found.error = unreadable.what();
        }
    }
    return found;
}

std::string processesJson(const Surroundings& parts, const AgentId& agent) {
    const ShownProcesses shown = findProcesses(parts, agent);
    JsonWriter json;
    json.object([&] {
        json.member("state", shown.state);
        json.member("asked", shown.asked);
        json.member("answered", shown.answered);
        json.member("error", shown.error);
        json.name("processes");
        json.array([&] {
            if (!shown.processes) {
                return;
            }
            for (const rapidjson::Value& process : shown.processes->GetArray()) {
                if (process.IsObject()) {
                    writeProcess(json, process);
                }
            }
        });
    });
    return json.text();
}

/// Whether an answer is on its way, so that several who ask get the same one.
bool isExpected(const Surroundings& parts, const Operation& operation) {
    const bool lost = operation.taken && parts.clock.utc() - *operation.taken > kPatience;
    return isOpen(operation) && !lost;
}

void askForProcesses(const Surroundings& parts, const Caller& caller, const Agent& agent) {
    OperationStore& operations = parts.store.operations();
    const auto asked = operations.findLatest(agent.id, OperationKind::ProcessList);
    if (asked && isExpected(parts, *asked)) {
        return;
    }
    NewOperation operation;
    operation.kind = OperationKind::ProcessList;
    operation.messageType = "collector:execute";
    operation.parameters = std::string(R"({"args":")") + kListProcesses + "\"}";
    operations.enqueue(agent.id, operation);
    record(parts, caller, "agent.processes", agent.id.text, agent.name);
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
            [&parts](http::Request& request, const Caller& caller) -> Awaitable<Response> {
                const auto ask = [&] {
                    const Agent agent = agentOf(parts, request.place("agent"));
                    askForProcesses(parts, caller, agent);
                    return processesJson(parts, agent.id);
                };
                co_return http::jsonResponse(co_await http::onPool(parts.threads, ask), 202);
            });
}

}  // namespace kolvan::server::api
