#pragma once

#include "tests/support/standin/ProfilingServer.h"

#include <map>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

namespace kolvan::test {

/// Shows what happens between server and agent as lines that a person can follow.
///
/// Threads: not safe by itself; a server calls its observer one event at a time.
class LiveView {
public:
    explicit LiveView(std::ostream& out) : out(out) {}

    /// Returns the functions to give to a server; they refer to this object.
    ServerObserver observer();

private:
    void showMessage(const AgentMessage& message);
    void showOutput(const OutputChunk& chunk);
    void showFinish(const AgentMessage& message);
    void showCommand(const AgentMessage& command);
    void showUpload(const UploadRecord& upload);
    void showRest(const std::string& id);
    void line(std::string_view text);

    std::ostream& out;
    // Text after the last line end, which waits for the rest of its line.
    std::map<std::pair<std::string, Channel>, std::string> rests;
};

/// Makes text fit for a terminal: control characters other than tabs become visible.
std::string printable(std::string_view text);

/// Writes a size for people, for example "1.5 MB".
std::string readableSize(std::uint64_t bytes);

}  // namespace kolvan::test
