#pragma once

#include "companions/server/http/Awaitable.h"
#include "companions/server/http/Fields.h"
#include "companions/server/http/Target.h"

#include <boost/asio/thread_pool.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kolvan::server::http {

/// What a request says before its body.
struct RequestHead {
    std::string method;
    Target target;
    Fields fields;
    std::string peer;     ///< address of the other side, without the port; empty when unknown
    bool secure = false;  ///< it came over TLS
};

/// Takes a piece of a body, which is valid during the call; an empty one is the body's end.
using TakePiece = std::function<void(std::string_view piece)>;

/// The connection as a request sees it.
class RequestSource {
public:
    virtual ~RequestSource() = default;

    /// See `Request::readSome`.
    virtual Awaitable<std::size_t> readSome(std::span<char> buffer) = 0;

    /// See `Request::readOnPool`.
    virtual Awaitable<void> readOnPool(boost::asio::thread_pool& threads, TakePiece take) = 0;

    /// See `Request::onHangUp`.
    virtual void watchForHangUp(std::function<void()> gone) = 0;
};

/// One request, in the hands of the handler that answers it.
///
/// Threads: the network thread.
class Request {
public:
    /// @param source where the body comes from; outlives the request
    Request(RequestHead requestHead, RequestSource& source)
        : start(std::move(requestHead)), connection(source) {}

    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    const RequestHead& head() const { return start; }

    /// Value of a header field; letters' case of the name does not count.
    std::optional<std::string_view> field(std::string_view name) const {
        return findField(start.fields, name);
    }

    /// Value of a place in the route's pattern, such as "id" in "/agents/{id}".
    /// @throws std::out_of_range for a name that the pattern does not have
    const std::string& place(const std::string& name) const { return places.at(name); }

    /// The query's names and values.
    /// @throws HttpError with status 400 when it is no query
    Query query() const;

    /// Reads the next bytes of the body.
    /// @return how many; 0 at the end
    /// @throws HttpError with status 413 when the body is longer than the route allows, 400 when
    ///     its form is broken; `ConnectionLost` when it breaks off
    Awaitable<std::size_t> readSome(std::span<char> buffer) { return connection.readSome(buffer); }

    /// Reads the body to its end and gives it to `take`, piece by piece, on threads of the pool,
    /// where that may block.
    ///
    /// Changing threads costs more than a call. So what has come is taken together, what comes
    /// meanwhile is read where it is taken, and the end comes in the same go as the last bytes: a
    /// short body changes threads once. Memory does not depend on the body's length.
    /// @throws as `readSome`, and what `take` throws
    Awaitable<void> readOnPool(boost::asio::thread_pool& threads, TakePiece take) {
        return connection.readOnPool(threads, std::move(take));
    }

    /// Reads the body to its end. For routes with a small limit.
    /// @throws as `readSome`
    Awaitable<std::string> readAll();

    /// Calls `gone` once if the client goes before the request has been answered. To be used after
    /// the body was read, by handlers that hold the answer back.
    void onHangUp(std::function<void()> gone) { connection.watchForHangUp(std::move(gone)); }

    /// Filled in by the router.
    std::map<std::string, std::string> places;

private:
    const RequestHead start;
    RequestSource& connection;
};

}  // namespace kolvan::server::http
