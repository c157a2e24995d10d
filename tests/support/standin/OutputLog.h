#pragma once

#include "tests/support/standin/ArrivedMessage.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::test {

/// The three streams of a collector.
enum class Channel { Feedback, Stdout, Stderr };

inline constexpr std::array<Channel, 3> kChannels = {Channel::Feedback, Channel::Stdout,
                                                     Channel::Stderr};

/// Returns "feedback", "stdout" or "stderr".
std::string_view channelName(Channel channel);

/// How an operation ended: with the collector's exit code or with the text of a failure.
struct OperationResult {
    std::optional<int> code;
    std::optional<std::string> errorMessage;
};

/// What arrived on one channel of one operation.
struct ChannelRecord {
    std::size_t messages = 0;
    std::uint64_t bytes = 0;  ///< of the decoded text
    std::string text;         ///< decoded; stays empty when output is not kept
};

/// Everything known about one operation.
struct OperationRecord {
    std::string id;
    std::string kind;                      ///< type of the message that started it; may be empty
    std::vector<OperationResult> results;  ///< one per "collector:finish", in order of arrival
    std::array<ChannelRecord, 3> channels;

    const ChannelRecord& channel(Channel which) const;
};

/// One piece of decoded output.
struct OutputChunk {
    std::string id;
    Channel channel;
    std::string text;
};

/// Keeps the operations of one server: what started them, what they wrote, how they ended.
///
/// Threads: none of its own and no lock; the owner guards it.
class OutputLog {
public:
    /// @param keepText false to count bytes only, for tests that send very much
    explicit OutputLog(bool keepText) : keepText(keepText) {}

    /// Notes that a command was given, so that its operation has a kind.
    void addCommand(const AgentMessage& command);

    /// Finds the output that a message carries, without recording it.
    /// @return nothing when the message is not output
    static std::optional<OutputChunk> outputOf(const ArrivedMessage& arrived,
                                               std::vector<std::string>& problems);

    /// Records decoded output.
    void addOutput(const OutputChunk& chunk, std::vector<std::string>& problems);

    /// Records a "collector:finish".
    void addFinish(const AgentMessage& message, std::vector<std::string>& problems);

    /// Returns the record of an operation, or null when nothing is known about it.
    const OperationRecord* find(const std::string& id) const;

private:
    OperationRecord& record(const std::string& id);

    const bool keepText;
    std::map<std::string, std::size_t> indexById;
    std::vector<OperationRecord> records;
};

}  // namespace kolvan::test
