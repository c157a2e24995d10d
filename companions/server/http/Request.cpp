#include "companions/server/http/Request.h"

#include "companions/server/http/HttpError.h"

#include <boost/asio/use_awaitable.hpp>

#include <array>

namespace kolvan::server::http {

Query Request::query() const {
    std::optional<Query> query = parseQuery(start.target.rawQuery);
    if (!query) {
        throw HttpError(400, "The query of the address has a broken percent-encoding.");
    }
    return std::move(*query);
}

Awaitable<std::string> Request::readAll() {
    std::string body;
    std::array<char, 4096> piece;
    while (const std::size_t length = co_await connection.readSome(piece)) {
        body.append(piece.data(), length);
    }
    co_return body;
}

}  // namespace kolvan::server::http
