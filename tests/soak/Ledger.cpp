#include "tests/soak/Ledger.h"

#include <string_view>
#include <utility>
#include <vector>

namespace kolvan::test::soak {

void Ledger::loseFirst(const std::string& id, const std::string& type) {
    const std::lock_guard lock(mutex);
    toLose[id] = type;
}

void Ledger::loseNextPoll() {
    const std::lock_guard lock(mutex);
    loseAPoll = true;
}

Treatment Ledger::judge(const std::string& request) {
    // A request so long that the relay does not gather it is no whole message, and passes.
    ArrivedMessage arrived;
    try {
        arrived = readMessage(std::string_view(request).substr(request.find('\n') + 1));
    } catch (const server::protocol::ProtocolError&) {
        return Treatment::Pass;
    }
    const std::lock_guard lock(mutex);
    if (!isToBeLost(arrived.message)) {
        return Treatment::Pass;
    }
    ++requests;
    std::vector<std::string> problems;
    if (const auto chunk = OutputLog::outputOf(arrived, problems)) {
        texts[{chunk->id, chunk->channel}] += chunk->text;
        lost += chunk->text.size();
    }
    return Treatment::Reset;
}

// With the mutex held. Each is lost once.
bool Ledger::isToBeLost(const AgentMessage& message) {
    if (message.type == "commands:get") {
        return std::exchange(loseAPoll, false);
    }
    const auto planned = toLose.find(message.parameter("id"));
    if (!message.parameters.contains("id") || planned == toLose.end() ||
        planned->second != message.type) {
        return false;
    }
    toLose.erase(planned);
    return true;
}

void Ledger::arrive(const OutputChunk& chunk) {
    const std::lock_guard lock(mutex);
    if (closed) {
        return;
    }
    texts[{chunk.id, chunk.channel}] += chunk.text;
    arrived += chunk.text.size();
}

void Ledger::close() {
    const std::lock_guard lock(mutex);
    closed = true;
}

std::string Ledger::sent(const std::string& id, Channel channel) const {
    const std::lock_guard lock(mutex);
    const auto text = texts.find({id, channel});
    return text == texts.end() ? std::string() : text->second;
}

std::uint64_t Ledger::arrivedBytes() const {
    const std::lock_guard lock(mutex);
    return arrived;
}

std::uint64_t Ledger::lostBytes() const {
    const std::lock_guard lock(mutex);
    return lost;
}

std::size_t Ledger::lostRequests() const {
    const std::lock_guard lock(mutex);
    return requests;
}

}  // namespace kolvan::test::soak
