#include "companions/server/http/RequestReader.h"

#include "companions/server/http/HttpError.h"
#include "companions/server/http/OnPool.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/http/error.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <limits>

namespace kolvan::server::http {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;

using beast::http::field;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kHeadPiece = std::size_t{4} * 1024;
constexpr std::size_t kBodyPiece = std::size_t{64} * 1024;
// Bytes of a body for which it is worth to change threads, and a connection's share of memory.
constexpr std::size_t kWorthATrip = std::size_t{16} * 1024;
// Bytes that are handed on at a time, when they come fast enough.
constexpr std::size_t kPortion = std::size_t{128} * 1024;
// After so many it is another connection's turn on the pool.
constexpr std::uint64_t kMostOfATurn = std::uint64_t{4} * 1024 * 1024;
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

std::string textOf(beast::string_view text) {
    return {text.data(), text.size()};
}

HttpError refusalOf(const beast::error_code& error, std::size_t headLimit) {
    if (error == beast::http::error::header_limit || error == beast::http::error::buffer_overflow) {
        return {431, "The header fields are longer than " + std::to_string(headLimit) + " bytes."};
    }
    return {400, "This is no HTTP/1 request: " + error.message() + "."};
}

// A line that goes on in the next one, which then begins with a blank (RFC 9112, 5.2). The parser
// would join them, where a proxy in front may see another field or the end of one.
void refuseFoldedLines(std::string_view lines) {
    if (lines.find("\r\n ") != std::string_view::npos ||
        lines.find("\r\n\t") != std::string_view::npos) {
        throw HttpError(400, "A header field has to stand on one line.");
    }
}

}  // namespace

Awaitable<std::optional<RequestHead>> RequestReader::readHead(Stream::Duration silence) {
    parser.emplace();
    parser->header_limit(static_cast<std::uint32_t>(limits.head));
    // Each route has its own limit; see limitBody(). To Boost 1.74, "none" is a limit of nothing.
    parser->body_limit(std::numeric_limits<std::uint64_t>::max());
    continueExpected = false;
    bodyRead = 0;
    unfinished = 0;
    if (received.size() == 0 && !co_await receive(kHeadPiece, silence)) {
        co_return std::nullopt;
    }
    // The whole head has one deadline: it is short.
    const Clock::time_point deadline = Clock::now() + limits.firstHead;
    for (;;) {
        const std::string_view text = receivedText();
        const std::size_t used = parse(text);
        refuseFoldedLines(text.substr(0, used));
        received.consume(used);
        if (parser->is_header_done()) {
            break;
        }
        if (received.size() >= limits.head) {
            throw refusalOf(beast::http::error::header_limit, limits.head);
        }
        const auto left = std::max<Clock::duration>(deadline - Clock::now(), Clock::duration(1));
        if (!co_await receive(kHeadPiece, left)) {
            throw ConnectionLost("the client has ended within the head of a request");
        }
    }
    co_return takeHead();
}

RequestHead RequestReader::takeHead() {
    const auto& message = parser->get();
    if (message.count(field::transfer_encoding) != 0) {
        // A list that only ends in "chunked" says that the chunks are compressed, for instance.
        if (!parser->chunked() || !beast::iequals(message[field::transfer_encoding], "chunked")) {
            throw HttpError(501, "The only transfer encoding that is understood is \"chunked\".");
        }
        // Where a proxy in front knows no chunks in HTTP/1.0, it sees another end of the body.
        if (message.version() < 11) {
            throw HttpError(400, "HTTP/1.0 has no chunks.");
        }
    }
    if (message.version() >= 11 && message.count(field::host) != 1) {
        throw HttpError(400, "A request has exactly one header field \"Host\".");
    }
    std::optional<Target> target = parseTarget(textOf(message.target()));
    if (!target) {
        throw HttpError(400, "The address is no path, or has a broken percent-encoding.");
    }
    RequestHead head;
    head.method = textOf(message.method_string());
    head.target = std::move(*target);
    for (const auto& entry : message) {
        head.fields.emplace_back(textOf(entry.name_string()), textOf(entry.value()));
    }
    continueExpected =
        message.version() >= 11 && beast::iequals(message[field::expect], "100-continue");
    patience.emplace(limits.bodyPause, limits.bodyBytesPerSecond);
    return head;
}

void RequestReader::limitBody(std::uint64_t bytes) {
    const auto announced = parser->content_length();
    if (announced && *announced > bytes) {
        throw HttpError(413, "The body may be " + std::to_string(bytes) + " bytes long.");
    }
    bodyLeft = bytes;
}

Awaitable<std::size_t> RequestReader::readSome(std::span<char> buffer) {
    while (!parser->is_done()) {
        if (received.size() != unfinished) {
            const std::string_view piece = takePiece(buffer.size());
            if (!piece.empty()) {
                std::copy(piece.begin(), piece.end(), buffer.begin());
                co_return piece.size();
            }
        } else {
            co_await receiveBody(kBodyPiece);
        }
    }
    if (received.size() == 0) {
        received.shrink_to_fit();  // the answer may take its time
    }
    co_return 0;
}

Awaitable<void> RequestReader::readOnPool(boost::asio::thread_pool& threads, TakePiece take) {
    bool ended = false;
    const auto handOn = [this, &take, &ended] { ended = handOnTo(take); };
    while (!ended) {
        co_await gather();
        co_await onPool(threads, handOn);
    }
    if (received.size() == 0) {
        received.shrink_to_fit();
    }
}

// Waits for enough to change threads for: the rest of a body, or a good part of it. Where the
// length is not known, anything may be the end.
Awaitable<void> RequestReader::gather() {
    const std::size_t enough = parser->content_length() ? restWithin(kWorthATrip) : unfinished + 1;
    while (!parser->is_done() && received.size() < enough) {
        co_await receiveBody(std::max(enough, restWithin(kWorthATrip)) - received.size());
    }
}

// Hands on what was received, and what comes meanwhile. @return whether the body has ended
bool RequestReader::handOnTo(const TakePiece& take) {
    if (parser->content_length()) {
        handOnPortions(take);
    } else {
        while (!parser->is_done() && received.size() != unfinished) {
            if (const std::string_view piece = takePiece(received.size()); !piece.empty()) {
                take(piece);
            }
        }
    }
    if (parser->is_done()) {
        take({});
    }
    return parser->is_done();
}

// Hands on a body whose length is known, so that nothing behind it is touched.
void RequestReader::handOnPortions(const TakePiece& take) {
    // On the stack, which this thread has used for others before: a connection needs less memory of
    // its own, and none has to be found for it.
    std::array<char, kPortion> portion;
    const std::uint64_t turn = bodyRead + kMostOfATurn;
    while (!parser->is_done() && bodyRead < turn) {
        const std::span wanted(portion.data(), restWithin(portion.size()));
        const std::size_t here =
            asio::buffer_copy(asio::buffer(wanted.data(), wanted.size()), received.cdata());
        received.consume(here);
        const std::size_t length = here + readNow(wanted.subspan(here));
        if (length == 0) {
            break;
        }
        (void)parsePiece({portion.data(), length}, length);  // all of it is body
        take({portion.data(), length});
    }
}

// What is left of the body, up to `most`; `most` where that is not known.
std::size_t RequestReader::restWithin(std::size_t most) const {
    const auto announced = parser->content_length();
    return announced
               ? static_cast<std::size_t>(std::min<std::uint64_t>(*announced - bodyRead, most))
               : most;
}

void RequestReader::watchForHangUp(std::function<void()> gone) {
    stream.socket().watchForHangUp(std::move(gone));
}

Awaitable<bool> RequestReader::receive(std::size_t most, Stream::Duration wait) {
    const auto space = received.prepare(most);
    const std::size_t length =
        co_await stream.readSome({static_cast<char*>(space.data()), space.size()}, wait);
    received.commit(length);
    co_return length != 0;
}

// Fills the buffer with what is there already. @return how many bytes
std::size_t RequestReader::readNow(std::span<char> buffer) {
    std::size_t filled = 0;
    while (filled < buffer.size()) {
        const std::size_t length = stream.readNow(buffer.subspan(filled));
        if (length == 0) {
            break;
        }
        filled += length;
    }
    return filled;
}

Awaitable<void> RequestReader::receiveBody(std::size_t most) {
    // The line before a chunk, or what follows the last one, is kept until it is whole.
    if (unfinished >= limits.head) {
        throw HttpError(400, "What stands between the chunks is longer than " +
                                 std::to_string(limits.head) + " bytes.");
    }
    if (continueExpected) {
        co_await sendContinue();
    }
    const Clock::time_point begin = Clock::now();
    const std::size_t before = received.size();
    if (!co_await receive(most, patience->left())) {
        throw ConnectionLost("the client has ended within the body of a request");
    }
    patience->spend(Clock::now() - begin, received.size() - before);
}

// @return how many of the bytes are done with
std::size_t RequestReader::parse(std::string_view bytes) {
    beast::error_code error;
    const std::size_t used = parser->put(asio::buffer(bytes), error);
    if (error && error != beast::http::error::need_more) {
        throw refusalOf(error, limits.head);
    }
    return used;
}

// @return how many of the bytes are done with; what of them belongs to the body is in the parser
std::size_t RequestReader::parsePiece(std::string_view bytes, std::size_t most) {
    PieceBody::value_type& body = parser->get().body();
    body = {most, {}};
    const std::size_t used = parse(bytes);
    if (body.piece.size() > bodyLeft) {
        throw HttpError(413, "The body is longer than allowed.");
    }
    bodyLeft -= body.piece.size();
    bodyRead += body.piece.size();
    return used;
}

// Takes a piece of the body out of what was received, where it stays until more is received.
// @return none when it was something else, such as the length of a chunk, or only its begin
std::string_view RequestReader::takePiece(std::size_t most) {
    const std::size_t used = parsePiece(receivedText(), most);
    received.consume(used);
    unfinished = used == 0 ? received.size() : 0;
    return parser->get().body().piece;
}

std::string_view RequestReader::receivedText() const {
    return {static_cast<const char*>(received.cdata().data()), received.size()};
}

Awaitable<void> RequestReader::sendContinue() {
    continueExpected = false;
    std::string_view rest = kContinue;
    while (!rest.empty()) {
        rest.remove_prefix(co_await stream.writeSome(rest, limits.bodyPause));
    }
}

}  // namespace kolvan::server::http
