#include "companions/server/agents/Bodies.h"

#include "companions/server/http/HttpError.h"
#include "companions/server/http/OnPool.h"

#include <string_view>
#include <utility>
#include <vector>

namespace kolvan::server::agents {
namespace {

// A connection's share of memory while something large comes over it.
constexpr std::size_t kMostGathered = 128 * 1024;
// Most bodies are shorter than this.
constexpr std::size_t kFirstPiece = 4 * 1024;

// Feeds a reader with the body, piece by piece, on the pool.
template <typename Reader>
http::Awaitable<void> feed(http::Request& request, boost::asio::thread_pool& threads,
                           Reader& reader) {
    std::vector<char> piece(kFirstPiece);
    for (;;) {
        const std::size_t length = co_await request.fill(piece);
        if (length == 0) {
            co_return;
        }
        const std::string_view text(piece.data(), length);
        const auto put = [&reader, text] {
            try {
                reader.put(text);
            } catch (const protocol::ProtocolError& error) {
                throw http::HttpError(400, error.what());
            }
        };
        co_await http::onPool(threads, put);
        if (length < piece.size()) {
            co_return;
        }
        piece.resize(kMostGathered);
    }
}

}  // namespace

http::Awaitable<protocol::AgentMessage> readMessage(http::Request& request,
                                                    boost::asio::thread_pool& threads,
                                                    protocol::MessageReader::Output output) {
    protocol::MessageReader reader(std::move(output));
    co_await feed(request, threads, reader);
    const auto finish = [&reader] {
        try {
            return reader.finish();  // may have output left
        } catch (const protocol::ProtocolError& error) {
            throw http::HttpError(400, error.what());
        }
    };
    co_return co_await http::onPool(threads, finish);
}

http::Awaitable<void> readForm(http::Request& request, boost::asio::thread_pool& threads,
                               protocol::FormListener& listener) {
    const std::optional<std::string> boundary =
        protocol::formBoundary(request.field("Content-Type").value_or(""));
    if (!boundary) {
        throw http::HttpError(415, "A form (multipart/form-data) with a boundary is expected.");
    }
    protocol::FormReader reader(*boundary, listener);
    co_await feed(request, threads, reader);
    try {
        reader.finish();
    } catch (const protocol::ProtocolError& error) {
        throw http::HttpError(400, error.what());
    }
}

}  // namespace kolvan::server::agents
