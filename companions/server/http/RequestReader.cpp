#include "companions/server/http/RequestReader.h"

#include "companions/server/http/HttpError.h"

#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/http/error.hpp>

#include <algorithm>
#include <chrono>
#include <limits>

namespace kolvan::server::http {
namespace {

namespace beast = boost::beast;

using beast::http::field;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kHeadPiece = 4 * 1024;
constexpr std::size_t kBodyPiece = 64 * 1024;
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

}  // namespace

Awaitable<std::optional<RequestHead>> RequestReader::readHead(Stream::Duration silence) {
    parser.emplace();
    parser->header_limit(static_cast<std::uint32_t>(limits.head));
    // Each route has its own limit; see limitBody(). To Boost 1.74, "none" is a limit of nothing.
    parser->body_limit(std::numeric_limits<std::uint64_t>::max());
    continueExpected = false;
    if (received.size() == 0 && !co_await receive(kHeadPiece, silence)) {
        co_return std::nullopt;
    }
    // The whole head has one deadline: it is short.
    const Clock::time_point deadline = Clock::now() + limits.firstHead;
    for (;;) {
        parse();
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
    auto& body = parser->get().body();
    for (;;) {
        if (parser->is_done()) {
            if (received.size() == 0) {
                received.shrink_to_fit();  // the answer may take its time
            }
            co_return 0;
        }
        if (received.size() != 0) {
            body.data = buffer.data();
            body.size = buffer.size();
            body.more = true;
            const std::size_t before = received.size();
            parse();
            const std::size_t length = buffer.size() - body.size;
            if (length > bodyLeft) {
                throw HttpError(413, "The body is longer than allowed.");
            }
            bodyLeft -= length;
            if (length != 0) {
                co_return length;
            }
            // Something else was taken, such as the length of a chunk. Or nothing, then more of it
            // has to come.
            if (received.size() != before) {
                continue;
            }
            // The line before a chunk, or what follows the last one, is kept until it is whole.
            if (received.size() >= limits.head) {
                throw HttpError(400, "What stands between the chunks is longer than " +
                                         std::to_string(limits.head) + " bytes.");
            }
        }
        co_await sendContinue();
        const Clock::time_point begin = Clock::now();
        const std::size_t before = received.size();
        if (!co_await receive(kBodyPiece, patience->left())) {
            throw ConnectionLost("the client has ended within the body of a request");
        }
        patience->spend(Clock::now() - begin, received.size() - before);
    }
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

void RequestReader::parse() {
    beast::error_code error;
    const std::size_t used = parser->put(received.cdata(), error);
    received.consume(used);
    if (error && error != beast::http::error::need_more &&
        error != beast::http::error::need_buffer) {
        throw refusalOf(error, limits.head);
    }
}

Awaitable<void> RequestReader::sendContinue() {
    if (!continueExpected) {
        co_return;
    }
    continueExpected = false;
    std::string_view rest = kContinue;
    while (!rest.empty()) {
        rest.remove_prefix(co_await stream.writeSome(rest, limits.bodyPause));
    }
}

}  // namespace kolvan::server::http
