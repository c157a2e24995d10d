#include "companions/server/agents/AgentService.h"

#include "companions/server/collections/CollectorOptions.h"

namespace kolvan::server::agents {

namespace {

// Enough for every agent of a large server. Whoever is forgotten is found in the store again.
constexpr std::size_t kMostKnown = 200'000;

// An agent's words in the audit.
constexpr std::size_t kMostOfAText = 500;

}  // namespace

AgentService::AgentService(Store& recordStore, Tokens& agentTokens, const OutputFiles& outputFiles)
    : store(recordStore),
      tokens(agentTokens),
      outputs(outputFiles),
      onEndOfAccess(store.wakeUps().onEndOfAccess([this] { forgetAll(); })) {}

std::optional<Agent> AgentService::connect(const Sender& sender, const std::string& hostName) {
    const std::uint64_t before = endsSoFar();
    const std::optional<AgentToken> token =
        tokens.findAgentToken(sender.accessToken, sender.address, hostName);
    if (!token) {
        return std::nullopt;
    }
    Agent agent = store.agents().connect({token->id, hostName, sender.uuid, sender.address});
    remember(sender.uuid, {agent.id, token->hash}, before);
    const std::lock_guard lock(mutex);
    // What it ran before, it does not run any more, unless it has only connected once more; then
    // the store is asked again.
    std::erase_if(running, [&agent](const auto& entry) { return entry.second == agent.id; });
    return agent;
}

std::optional<AgentId> AgentService::recognise(const Sender& sender) {
    std::optional<AgentId> agent = find(sender);
    if (agent) {
        const std::lock_guard lock(mutex);
        seen.insert(*agent);
    }
    return agent;
}

std::optional<AgentId> AgentService::find(const Sender& sender) {
    const Sha256 hash = sha256(sender.accessToken);
    std::uint64_t before = 0;
    {
        const std::lock_guard lock(mutex);
        before = endsOfAccess;
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
    remember(sender.uuid, {agent->id, hash}, before);
    return agent->id;
}

std::optional<std::vector<Operation>> AgentService::takeCommands(const Sender& sender,
                                                                 const AgentId& agent) {
    switch (store.agents().standing(agent, sender.uuid)) {
        case Standing::Left:
            return std::nullopt;
        case Standing::Revoked:
            forget(sender.uuid);
            return std::vector<Operation>();
        case Standing::Trusted:
            break;
    }
    return store.operations().take(agent, kCommandsOfAReply);
}

bool AgentService::isTrusted(const AgentId& agent) {
    std::uint64_t before = 0;
    {
        const std::lock_guard lock(mutex);
        before = endsOfAccess;
        if (trusted.contains(agent)) {
            return true;
        }
    }
    if (!store.agents().hasValidToken(agent)) {
        return false;
    }
    const std::lock_guard lock(mutex);
    if (before == endsOfAccess) {
        trusted.insert(agent);
    }
    return true;
}

bool AgentService::append(const AgentId& agent, const OperationId& operation, OutputChannel channel,
                          std::string_view bytes) {
    if (!isRunning(agent, operation)) {
        try {
            if (!store.operations().confirm(agent, operation)) {
                return false;
            }
        } catch (...) {  // whatever it is: the bytes are lost
            outputs.noteGap(operation, channel);
            throw;
        }
        const std::lock_guard lock(mutex);
        running.insert_or_assign(operation, agent);
    }
    (void)outputs.append(operation, channel, bytes);  // its size is recorded by `announce`
    return true;
}

void AgentService::announce(const OperationId& operation, OutputChannel channel) {
    store.operations().setOutputSize(operation, channel, outputs.size(operation, channel));
}

void AgentService::finish(const AgentId& agent, const OperationId& operation,
                          std::optional<int> exitCode, const std::string& errorMessage) {
    const End end{agent, exitCode, errorMessage};
    try {
        record(operation, end);
    } catch (...) {  // whatever it is: nobody will tell it again
        const std::optional<Operation> known = store.operations().find(operation);
        if (known && known->agent == agent) {
            const std::lock_guard lock(mutex);
            unrecorded.emplace(operation, end);
        }
        throw;
    }
}

void AgentService::reportError(const Sender& sender, const AgentId& agent,
                               const std::string& text) {
    const std::optional<Agent> found = store.agents().find(agent);
    store.audit().append({0,
                          {},
                          found ? found->name : agent.text,
                          sender.address,
                          "agent.error",
                          agent.text,
                          text.substr(0, kMostOfAText)});
}

void AgentService::leave(const Sender& sender, const AgentId& agent) {
    store.agents().leave(agent, sender.uuid);
}

void AgentService::recordSeen() {
    std::unordered_set<AgentId> heard;
    {
        const std::lock_guard lock(mutex);
        heard.swap(seen);
    }
    if (heard.empty()) {
        return;
    }
    try {
        store.agents().noteSeen(std::vector<AgentId>(heard.begin(), heard.end()));
    } catch (...) {  // whatever it is: the next call tries again
        const std::lock_guard lock(mutex);
        seen.merge(heard);
        throw;
    }
}

void AgentService::recordEnds() {
    std::unordered_map<OperationId, End> ends;
    {
        const std::lock_guard lock(mutex);
        ends.swap(unrecorded);
    }
    try {
        while (!ends.empty()) {
            record(ends.begin()->first, ends.begin()->second);
            ends.erase(ends.begin());
        }
    } catch (...) {  // whatever it is: the next call tries again
        const std::lock_guard lock(mutex);
        unrecorded.merge(ends);
        throw;
    }
}

void AgentService::record(const OperationId& operation, const End& end) {
    store.operations().finish(end.agent, operation, end.exitCode, end.errorMessage,
                              outcomeOf(end.exitCode));
    {
        const std::lock_guard lock(mutex);
        running.erase(operation);
    }
    outputs.finish(operation);
}

/// @param before `endsSoFar` when the store was about to be asked: what it said may no longer hold
void AgentService::remember(const std::string& uuid, const Known& known, std::uint64_t before) {
    const std::lock_guard lock(mutex);
    if (before != endsOfAccess) {
        return;
    }
    if (agentsByUuid.size() >= kMostKnown) {
        agentsByUuid.clear();
    }
    agentsByUuid.insert_or_assign(uuid, known);
}

std::uint64_t AgentService::endsSoFar() const {
    const std::lock_guard lock(mutex);
    return endsOfAccess;
}

void AgentService::forgetAll() {
    const std::lock_guard lock(mutex);
    ++endsOfAccess;
    agentsByUuid.clear();
    trusted.clear();
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
