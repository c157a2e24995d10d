#pragma once

#include "agent/Base64.h"
#include "server/Message.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace cagnt1 {

/// The text that all requests of one channel have in common. It is written once; a request puts its
/// output and then the output's size into it, because the size is known last.
class OutputFrame {
public:
    /// @param message what the requests say beside the parameters "message", which is the output in
    ///        Base64, and "size", which is the number of its bytes
    explicit OutputFrame(const Message& message);

    const std::string& beforeOutput() const { return pieces[0]; }
    const std::string& beforeSize() const { return pieces[1]; }
    const std::string& afterSize() const { return pieces[2]; }

private:
    std::vector<std::string> pieces;
};

/// The request that carries an operation's output, written while the output is gathered.
///
/// Each piece is encoded as it comes, straight into its final place. So a large output is kept once
/// and never copied. It also holds the reader of the pipe to the speed of the encoder: less of a
/// flood gathers while an earlier request is under way.
class OutputRequest {
public:
    /// @param channelFrame lives longer than the request
    /// @param room a text that is not needed any more: its memory is used, as far as it goes
    explicit OutputRequest(const OutputFrame& channelFrame, std::string room = {});

    /// Adds a piece of output, bytes of any kind.
    /// @throws std::bad_alloc; nothing has been added then
    void append(std::string_view output);

    /// Whether there is no output yet.
    bool empty() const noexcept { return size == 0; }

    /// The whole text: the frame's message with "message" and "size". The object is used up.
    /// @throws std::bad_alloc
    std::string complete() &&;

private:
    const OutputFrame* frame;
    std::string text;      // the frame up to the output, and the output encoded so far
    std::size_t size = 0;  // of the output, in bytes
    Base64Encoder encoder;
};

}  // namespace cagnt1
