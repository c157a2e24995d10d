#pragma once

#include "bench/server/Script.h"
#include "bench/server/Stream.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kolvan::bench {

/// Skips over a chunked body.
class Chunks {
public:
    /// @return whether the last chunk is complete
    bool skip(std::string_view data);

private:
    std::string sizeLine;
    std::uint64_t left = 0;  // of the current chunk, its line end included
    bool last = false;
};

/// One HTTP connection: request, answer, request, answer.
class Connection {
public:
    Connection(Stream accepted, Script& script);

    /// Goes on as far as the socket lets it.
    /// @return false when the connection is over
    bool advance();

    /// Answers the request that was held.
    /// @return as advance()
    bool answer(Answer&& held);

    /// Whether it is room for writing that advance() waits for.
    bool wantsToWrite() const { return state == State::Answering; }

private:
    enum class State { Head, Body, Held, Answering };
    enum class Step { Done, Blocked, Over };

    Step readHead();
    void parseHead(std::string_view lines);
    Step readBody();
    Step readChunkedBody();
    Step writeAnswer();
    void begin(Answer&& next);
    Step stepOf(ssize_t outcome) const;

    Stream stream;
    Script& script;
    State state = State::Head;
    std::string input;  // what was read beyond the head
    Request request;
    std::uint64_t bodyLeft = 0;
    bool chunked = false;
    Chunks chunks;
    Answer current;
    std::string output;
    std::size_t written = 0;
};

}  // namespace kolvan::bench
