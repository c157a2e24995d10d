#pragma once

#include "companions/server/http/Limits.h"
#include "companions/server/http/Patience.h"
#include "companions/server/http/PieceBody.h"
#include "companions/server/http/Request.h"
#include "companions/server/http/Stream.h"

#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>

#include <cstdint>
#include <optional>
#include <span>

namespace kolvan::server::http {

/// Reads the requests of one connection, one after the other: head, then body.
///
/// Threads: the network thread; while that waits in `readOnPool`, one of the pool.
class RequestReader final : public RequestSource {
public:
    /// @param input outlives the reader, as do the limits
    RequestReader(Stream& input, const Limits& clientLimits)
        : stream(input), limits(clientLimits) {}

    /// Reads the head of the next request.
    /// @param silence longest time until its first byte comes
    /// @return nothing when the client has ended in place of another request
    /// @throws HttpError when it is no request; nothing can be read behind it
    Awaitable<std::optional<RequestHead>> readHead(Stream::Duration silence);

    /// Sets how long the body may be.
    /// @throws HttpError with status 413 when it is announced to be longer
    void limitBody(std::uint64_t bytes);

    Awaitable<std::size_t> readSome(std::span<char> buffer) override;
    Awaitable<void> readOnPool(boost::asio::thread_pool& threads, TakePiece take) override;
    void watchForHangUp(std::function<void()> gone) override;

    /// The body has been read to its end.
    bool isComplete() const { return parser && parser->is_done(); }

    /// The client wants to make another request over this connection.
    bool keepsAlive() const { return parser && parser->is_header_done() && parser->keep_alive(); }

    /// The client knows HTTP/1.1.
    bool knowsChunks() const { return parser && parser->get().version() >= 11; }

private:
    using Parser = boost::beast::http::request_parser<PieceBody>;

    Awaitable<bool> receive(std::size_t most, Stream::Duration patience);
    Awaitable<void> receiveBody(std::size_t most);
    Awaitable<void> gather();
    bool handOnTo(const TakePiece& take);
    void handOnPortions(const TakePiece& take);
    std::size_t restWithin(std::size_t most) const;
    std::size_t readNow(std::span<char> buffer);
    std::size_t parse(std::string_view bytes);
    std::size_t parsePiece(std::string_view bytes, std::size_t most);
    std::string_view takePiece(std::size_t most);
    std::string_view receivedText() const;
    Awaitable<void> sendContinue();
    RequestHead takeHead();

    Stream& stream;
    const Limits& limits;
    boost::beast::flat_buffer received;  // what the parser has not taken yet
    std::optional<Parser> parser;        // of the current request
    std::optional<Patience> patience;    // with its body
    std::uint64_t bodyLeft = 0;          // bytes that the limit still allows
    std::uint64_t bodyRead = 0;          // bytes of the current body so far
    std::size_t unfinished = 0;          // bytes in `received` that are only the begin of something
    bool continueExpected = false;
};

}  // namespace kolvan::server::http
