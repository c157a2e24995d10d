#include "companions/client/EventReader.h"

#include "companions/client/Failure.h"

#include <cstddef>
#include <utility>

namespace kolvan::client {

namespace {

constexpr std::size_t kMostBytes = std::size_t{16} * 1024 * 1024;  // of one event

}  // namespace

EventReader::EventReader(std::function<void(const Event&)> taker) : take(std::move(taker)) {}

void EventReader::read(std::string_view piece) {
    while (!piece.empty()) {
        if (std::exchange(afterReturn, false) && piece.front() == '\n') {
            piece.remove_prefix(1);
            continue;
        }
        const std::size_t end = piece.find_first_of("\r\n");
        rest += piece.substr(0, end);
        if (rest.size() + event.data.size() > kMostBytes) {
            throw Failure("The server's answer makes no sense: an event of it has no end.");
        }
        if (end == std::string_view::npos) {
            return;
        }
        afterReturn = piece[end] == '\r';
        piece.remove_prefix(end + 1);
        readLine(std::exchange(rest, {}));
    }
}

void EventReader::readLine(std::string_view line) {
    if (line.empty()) {
        if (std::exchange(hasData, false)) {
            if (event.kind.empty()) {
                event.kind = "message";
            }
            take(event);
        }
        event.kind.clear();
        event.data.clear();
        return;
    }
    const std::size_t colon = line.find(':');
    const std::string_view name = line.substr(0, colon);
    std::string_view value =
        colon == std::string_view::npos ? std::string_view() : line.substr(colon + 1);
    if (value.starts_with(' ')) {
        value.remove_prefix(1);
    }
    if (name == "data") {
        event.data += hasData ? "\n" : "";
        event.data += value;
        hasData = true;
    } else if (name == "event") {
        event.kind = value;
    } else if (name == "id") {
        event.id = value;
    }
}

}  // namespace kolvan::client
