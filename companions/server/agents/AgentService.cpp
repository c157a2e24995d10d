#include "companions/server/agents/AgentService.h"

#include "companions/server/base/Sha256.h"
#include "companions/server/collections/CollectorOptions.h"
#include "companions/server/store/StoreError.h"

#include <utility>

namespace kolvan::server::agents {

namespace {

// Enough for every agent of a large server. Whoever is forgotten is found in the store again.
constexpr std::size_t kMostKnown = 200'000;

// Texts of strangers in the audit.
constexpr std::size_t kMostOfAText = 500;

AuditLine auditLine(std::string actor, std::string address, std::string action,
                    const std::string& subject, const std::string& detail) {
    AuditLine line;
    line.actor = std::move(actor);
    line.address = std::move(address);
    line.action = std::move(action);
    line.subject = subject.substr(0, kMostOfAText);
    line.detail = detail.substr(0, kMostOfAText);
    return line;
}

}  // namespace

AgentService::AgentService(Store& recordStore, const OutputFiles& outputFiles)
    : store(recordStore), outputs(outputFiles) {}

std::optional<Agent> AgentService::connect(const Sender& sender, const std::string& hostName) {
    const Sha256 hash = sha256(sender.accessToken);
    const std::optional<AgentToken> token = store.agents().findToken(hash);
    if (!token) {
        store.audit().append(
            auditLine("", sender.address, "agent.refused", hostName, "unknown or revoked token"));
        return std::nullopt;
    }
    Agent agent = store.agents().connect({token->id, hostName, sender.uuid, sender.address});
    const std::lock_guard lock(mutex);
    if (agentsByUuid.size() >= kMostKnown) {
        agentsByUuid.clear();
    }
    agentsByUuid.insert_or_assign(sender.uuid, Known{agent.id, hash});
    // What it ran before, it does not run any more, unless it has only connected once more; then
    // the store is asked again.
    std::erase_if(running, [&agent](const auto& entry) { return entry.second == agent.id; });
    return agent;
}

std::optional<AgentId> AgentService::recognise(const Sender& sender) {
    const Sha256 hash = sha256(sender.accessToken);
    {
        const std::lock_guard lock(mutex);
        const auto found = agentsByUuid.find(sender.uuid);
        if (found != agentsByUuid.end() && equalInConstantTime(found->second.token, hash)) {
            return found->second.agent;
        }
    }
    // It may have connected to a server before this one.
    const std::optional<AgentToken> token = store.agents().findToken(hash);
    const std::optional<Agent> agent =
        token ? store.agents().findStarted(token->id, sender.uuid) : std::nullopt;
    if (!agent) {
        return std::nullopt;
    }
    const std::lock_guard lock(mutex);
    agentsByUuid.insert_or_assign(sender.uuid, Known{agent->id, hash});
    return agent->id;
}

std::optional<std::vector<Operation>> AgentService::takeCommands(const Sender& sender,
                                                                 const AgentId& agent) {
    if (!store.agents().hasValidToken(agent)) {
        forget(sender.uuid);
        return std::nullopt;
    }
    return store.operations().take(agent, kCommandsOfAReply);
}

bool AgentService::append(const AgentId& agent, const OperationId& operation, OutputChannel channel,
                          std::string_view bytes) {
    if (!isRunning(agent, operation)) {
        if (!store.operations().confirm(agent, operation)) {
            return false;
        }
        const std::lock_guard lock(mutex);
        running.insert_or_assign(operation, agent);
    }
    const std::uint64_t size = outputs.append(operation, channel, bytes);
    store.operations().setOutputSize(operation, channel, size);
    return true;
}

void AgentService::finish(const AgentId& agent, const OperationId& operation,
                          std::optional<int> exitCode, const std::string& errorMessage) {
    store.operations().finish(agent, operation, exitCode, errorMessage, outcomeOf(exitCode));
    const std::lock_guard lock(mutex);
    running.erase(operation);
}

void AgentService::reportError(const Sender& sender, const AgentId& agent,
                               const std::string& text) {
    const std::optional<Agent> found = store.agents().find(agent);
    store.audit().append(auditLine(found ? found->name : agent.text, sender.address, "agent.error",
                                   agent.text, text));
}

void AgentService::leave(const AgentId& agent) {
    store.agents().setPresence(agent, AgentPresence::Left);
}

void AgentService::forget(const std::string& uuid) {
    const std::lock_guard lock(mutex);
    agentsByUuid.erase(uuid);
}

bool AgentService::isRunning(const AgentId& agent, const OperationId& operation) const {
    const std::lock_guard lock(mutex);
    const auto found = running.find(operation);
    return found != running.end() && found->second == agent;
}

}  // namespace kolvan::server::agents
