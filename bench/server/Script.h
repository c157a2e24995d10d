#pragma once

#include "basekit2/UniqueFd.h"
#include "bench/server/Latencies.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kolvan::bench {

/// One request as far as it is looked at. Times are nanoseconds of the monotonic clock.
struct Request {
    std::string method;
    std::string target;
    std::string body;  // its beginning, as many bytes as the script wants to keep
    std::uint64_t bodySize = 0;
    std::int64_t began = 0;
};

struct Answer {
    std::string text;
    basekit2::UniqueFd file{};  // sent in place of the text where there is one
    std::size_t fileSize = 0;
};

/// What the server says to the agent, turn by turn, and what it notes down meanwhile.
///
/// A turn answers one request for commands, and waits until the operations of the turns before it
/// have ended. Without a turn the request is held.
class Script {
public:
    explicit Script(std::filesystem::path packageDirectory);

    /// Takes one command of the driver:
    ///   polls N              answers N requests for commands with nothing
    ///   one-by-one N ARGS    N times "collector:execute", one after the other
    ///   at-once N ARGS       N of them in one reply
    ///   collection OPTION    "collector:collection:start" with one line of options
    ///   stop                 "stop"
    ///   delay MS             answers output only after that long
    ///   latencies            looks into the output from here on; see Latencies
    ///   wait                 prints "quiet" once every turn is over and every operation has ended
    ///   report               prints what was noted down, as one line of JSON
    void command(const std::string& line);

    /// Returns the answer, or nothing where the request has to be held.
    std::optional<Answer> answer(const Request& request, int connection);

    /// Nanoseconds until takeDue() has something to give by the passing of time, if that is ever.
    std::optional<std::int64_t> timeToNextDue() const;

    /// A held request that can be answered now.
    struct Due {
        int connection;
        Answer answer;
    };
    std::optional<Due> takeDue();

    /// Forgets a held request whose connection is gone.
    void forget(int connection);

    /// Bytes of a request's body that are worth keeping.
    std::size_t keptBytes() const;

private:
    struct Turn {
        std::uint64_t times;     // requests that it answers
        std::uint64_t messages;  // in each answer
        std::string type;
        std::string parameters;  // JSON members, empty for a message that starts no operation
    };

    std::optional<Answer> answerMessage(const Request& request, int connection);
    Answer packageFile(const std::string& name) const;
    std::string textOf(const Turn& turn);
    void noteEnd(const std::string& id, std::int64_t now);
    void printIfQuiet();
    void report() const;

    std::filesystem::path packages;
    std::deque<Turn> turns;
    std::optional<int> held;
    std::int64_t delay = 0;
    std::multimap<std::int64_t, int> delayed;  // connections by the time of their answer
    bool quietWanted = false;

    std::uint64_t lastId = 0;
    std::map<std::string, std::int64_t> running;  // operations and when they were asked for
    std::vector<std::int64_t> durations;          // from the request to "collector:finish"
    std::vector<std::int64_t> ends;
    std::int64_t connected = 0;
    std::uint64_t outputMessages = 0;
    std::uint64_t outputBytes = 0;  // of request bodies, everything around the text included
    std::uint64_t uploads = 0;
    std::uint64_t uploadBytes = 0;
    std::int64_t firstUpload = 0;
    std::int64_t lastUpload = 0;
    std::optional<Latencies> latencies;
};

/// Nanoseconds of the monotonic clock.
std::int64_t monotonicTime();

}  // namespace kolvan::bench
