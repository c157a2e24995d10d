#pragma once

#include "agent/Base64.h"
#include "server/Message.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace cagnt1 {

/// The request that carries an operation's output, written while the output is gathered.
///
/// Each piece is encoded as it comes, straight into its final place. So a large output is neither
/// kept twice nor copied, and whoever brings it goes no faster than the encoder: less of a flood
/// gathers while an earlier request is under way.
class OutputRequest {
public:
    /// @param frame the message without its output; the parameters "size" and "message" are filled
    ///        in here
    /// @param room a text that is not needed any more: its memory is used, as far as it goes
    explicit OutputRequest(Message frame, std::string room = {});

    /// Adds a piece of output, bytes of any kind.
    /// @throws std::bad_alloc; nothing has been added then
    void append(std::string_view output);

    /// Whether there is no output yet.
    bool empty() const noexcept { return size == 0; }

    /// The whole text, as messageToJson() writes the message. The object is used up.
    /// @throws std::bad_alloc
    std::string complete() &&;

private:
    Message frame;
    std::string text;  // the frame up to the value of "message", and the output encoded so far
    std::size_t headSize;
    std::size_t size = 0;  // of the output, in bytes
    Base64Encoder encoder;
};

}  // namespace cagnt1
