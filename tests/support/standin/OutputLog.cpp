#include "tests/support/standin/OutputLog.h"

#include <charconv>
#include <utility>

namespace kolvan::test {
namespace {

constexpr std::string_view kOutputPrefix = "collector:";

std::optional<int> numberIn(const std::string& text) {
    int number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return number;
}

std::size_t indexOf(Channel channel) {
    return static_cast<std::size_t>(channel);
}

std::optional<Channel> channelNamed(std::string_view name) {
    for (const Channel channel : kChannels) {
        if (channelName(channel) == name) {
            return channel;
        }
    }
    return std::nullopt;
}

}  // namespace

std::string_view channelName(Channel channel) {
    switch (channel) {
        case Channel::Feedback:
            return "feedback";
        case Channel::Stdout:
            return "stdout";
        case Channel::Stderr:
            return "stderr";
    }
    return {};
}

const ChannelRecord& OperationRecord::channel(Channel which) const {
    return channels[indexOf(which)];
}

void OutputLog::addCommand(const AgentMessage& command) {
    if (command.parameters.contains("id")) {
        record(command.parameter("id")).kind = command.type;
    }
}

std::optional<OutputChunk> OutputLog::outputOf(const ArrivedMessage& arrived,
                                               std::vector<std::string>& problems) {
    const AgentMessage& message = arrived.message;
    if (!message.type.starts_with(kOutputPrefix)) {
        return std::nullopt;
    }
    const auto channel = channelNamed(std::string_view(message.type).substr(kOutputPrefix.size()));
    if (!channel) {
        return std::nullopt;
    }
    OutputChunk chunk{message.parameter("id"), *channel, arrived.output};
    // A wrong size is refused by whoever reads the message, a missing output or size is not.
    const std::string size = message.parameter("size");
    if (size != std::to_string(chunk.text.size())) {
        problems.push_back(message.type + " of '" + chunk.id + "': \"size\" is '" + size +
                           "' but " + std::to_string(chunk.text.size()) + " bytes arrived");
    }
    return chunk;
}

void OutputLog::addOutput(const OutputChunk& chunk, std::vector<std::string>& problems) {
    OperationRecord& operation = record(chunk.id);
    // An operation that failed may still have output under way; one that ended with a code has
    // sent everything before.
    if (!operation.results.empty() && operation.results.back().code) {
        problems.push_back("output of '" + chunk.id + "' arrived after its end");
    }
    ChannelRecord& channel = operation.channels[indexOf(chunk.channel)];
    ++channel.messages;
    channel.bytes += chunk.text.size();
    if (keepText) {
        channel.text += chunk.text;
    }
}

void OutputLog::addFinish(const AgentMessage& message, std::vector<std::string>& problems) {
    const std::string id = message.parameter("id");
    OperationResult result;
    if (message.parameters.contains("code")) {
        result.code = numberIn(message.parameter("code"));
        if (!result.code) {
            problems.push_back("end of '" + id + "': \"code\" is '" + message.parameter("code") +
                               "'");
        }
    }
    if (message.parameters.contains("errorMessage")) {
        result.errorMessage = message.parameter("errorMessage");
    }
    if (message.parameters.contains("code") == message.parameters.contains("errorMessage")) {
        problems.push_back("end of '" + id +
                           "': exactly one of \"code\" and \"errorMessage\" is needed");
    }
    record(id).results.push_back(std::move(result));
}

const OperationRecord* OutputLog::find(const std::string& id) const {
    const auto found = indexById.find(id);
    return found == indexById.end() ? nullptr : &records[found->second];
}

OperationRecord& OutputLog::record(const std::string& id) {
    const auto [entry, added] = indexById.try_emplace(id, records.size());
    if (added) {
        records.push_back({id, {}, {}, {}});
    }
    return records[entry->second];
}

}  // namespace kolvan::test
