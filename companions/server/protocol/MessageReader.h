#pragma once

#include "companions/server/protocol/AgentMessage.h"
#include "companions/server/protocol/JsonScanner.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kolvan::server::protocol {

/// Reads one message of an agent, which comes in pieces:
///
///     {"messageType": "...", "messageParameters": {"id": "...", "message": "<Base64>", ...}}
///
/// The parameter "message" carries a collector's output and may be gigabytes long. It is decoded
/// and handed on as it comes and never kept; everything else of a message is short.
///
/// A parameter that is no string reads as an empty one, a string ends at its first NUL, of two
/// parameters with one name the last counts, and members that are unknown are passed over. Once
/// output has been handed on, nothing may come that would have sent it elsewhere.
class MessageReader {
public:
    static constexpr std::size_t kLongestParameter = std::size_t{256} * 1024;  ///< bytes, decoded
    static constexpr std::size_t kLongestMessage = std::size_t{512} * 1024;  ///< all but the output
    static constexpr std::size_t kMostEarlyOutput = std::size_t{64} * 1024;  ///< see `Output`

    /// Takes a piece of output. Type, sender and id of the message are known by then: output
    /// that stands before them in the text waits for the text's end, and may only be short.
    using Output = std::function<void(const AgentMessage& known, std::string_view bytes)>;

    explicit MessageReader(Output takesOutput);
    ~MessageReader();

    MessageReader(const MessageReader&) = delete;
    MessageReader& operator=(const MessageReader&) = delete;

    /// Reads the next piece, which may end anywhere.
    /// @throws ProtocolError; what `Output` throws goes through. Nothing can be put in any more
    /// then
    void put(std::string_view piece);

    /// Ends the text.
    /// @return the message without its parameter "message"
    /// @throws ProtocolError when it is not complete, has no type, or its "size" is not the number
    ///     of bytes that came
    AgentMessage finish();

    /// Bytes of output so far.
    std::uint64_t outputSize() const;

private:
    class Listener;
    const std::unique_ptr<Listener> listener;
    JsonScanner scanner;
};

}  // namespace kolvan::server::protocol
