#pragma once

#include "basekit2/UniqueFd.h"
#include "companions/server/http/Awaitable.h"
#include "companions/server/http/Fields.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <variant>

namespace kolvan::server::http {

/// A body that is an open file, from its beginning. A part of it is sent where a range is asked
/// for.
struct FileBody {
    std::shared_ptr<const basekit2::UniqueFd> file;
    std::uint64_t size = 0;  ///< bytes; a file that turns out shorter breaks the connection off

    /// Asked before each piece, on the pool: false breaks the response off. Empty: it goes on.
    std::function<bool()> mayGoOn = {};
};

/// Where a body goes that is made while it is sent.
class BodyWriter {
public:
    virtual ~BodyWriter() = default;

    /// Sends the bytes, and waits until the connection has taken them.
    /// @return false when the client has gone or takes nothing; there is no use in going on
    virtual Awaitable<bool> write(std::string_view bytes) = 0;

    /// Calls `ended` once when the client has gone or the server is about to stop, so that a
    /// coroutine that waits for news can leave. It is called at once when the server stops already,
    /// and not at all after `write` has said so or the coroutine has returned.
    virtual void onEnd(std::function<void()> ended) = 0;
};

/// A body of unknown length: written by a coroutine, complete when that returns, broken off when it
/// throws.
using StreamBody = std::function<Awaitable<void>(BodyWriter&)>;

/// What a handler answers.
struct Response {
    unsigned status = 200;

    /// Beyond what belongs to every response: Date, length, connection, and what browsers have to
    /// know of it, such as "nosniff" and "no-store". A field of the same name here counts more.
    Fields fields;
    std::variant<std::string, FileBody, StreamBody> body;

    /// Called once: true after the system has taken all of the response, false when that has become
    /// impossible. The client may still not have seen it.
    std::function<void(bool)> sent;
};

/// Responses with a text.
Response textResponse(unsigned status, std::string type, std::string text);
Response jsonResponse(std::string json, unsigned status = 200);

/// It is done, and there is nothing to say of it: status 204.
Response noContentResponse();

/// A problem as RFC 9457 describes it.
/// @param detail a sentence that helps whoever made the request
Response problemResponse(unsigned status, std::string_view detail);

/// The usual words for a status, "Not Found" for 404.
std::string_view reasonPhrase(unsigned status);

/// One event of a stream of server-sent events.
struct ServerEvent {
    std::string_view name;  ///< without line ends; empty for the default, "message"
    std::string_view data;
    std::string_view id;  ///< without line ends; comes back when the client connects again
};

/// The event as it goes over the connection.
std::string eventText(const ServerEvent& event);

/// A response that is a stream of events.
Response eventsResponse(StreamBody events);

}  // namespace kolvan::server::http
