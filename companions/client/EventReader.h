#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace kolvan::client {

/// One server-sent event.
struct Event {
    std::string id;    ///< of the last event that had one
    std::string kind;  ///< "message" where the server does not say it
    std::string data;  ///< its lines with line feeds between
};

/// Reads a stream of server-sent events that comes in pieces of any size.
class EventReader {
public:
    /// @param take is called with each event as soon as it is whole
    explicit EventReader(std::function<void(const Event&)> take);

    /// @throws Failure when an event is larger than any that makes sense; and what `take` throws
    void read(std::string_view piece);

private:
    void readLine(std::string_view line);

    const std::function<void(const Event&)> take;
    std::string rest;          // the beginning of a line
    bool afterReturn = false;  // a line feed would belong to the carriage return before
    Event event;
    bool hasData = false;
};

}  // namespace kolvan::client
