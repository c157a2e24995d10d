#include "companions/server/agents/Bodies.h"

#include "companions/server/http/HttpError.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kolvan::server::agents {
namespace {

// Makes what a reader finds wrong the client's fault.
template <typename Call>
auto refusing(Call&& call) {
    try {
        return call();
    } catch (const protocol::ProtocolError& error) {
        throw http::HttpError(400, error.what());
    }
}

}  // namespace

http::Awaitable<void> readMessage(http::Request& request, boost::asio::thread_pool& threads,
                                  protocol::MessageReader::Output output,
                                  std::function<void(protocol::AgentMessage)> handle) {
    protocol::MessageReader reader(std::move(output));
    const auto take = [&](std::string_view piece) {
        if (piece.empty()) {
            handle(refusing([&] { return reader.finish(); }));
        } else {
            refusing([&] { reader.put(piece); });
        }
    };
    co_await request.readOnPool(threads, take);
}

http::Awaitable<void> readForm(http::Request& request, boost::asio::thread_pool& threads,
                               protocol::FormListener& listener) {
    const std::optional<std::string> boundary =
        protocol::formBoundary(request.field("Content-Type").value_or(""));
    if (!boundary) {
        throw http::HttpError(415, "A form (multipart/form-data) with a boundary is expected.");
    }
    protocol::FormReader reader(*boundary, listener);
    const auto take = [&reader](std::string_view piece) {
        refusing([&] {
            if (piece.empty()) {
                reader.finish();
            } else {
                reader.put(piece);
            }
        });
    };
    co_await request.readOnPool(threads, take);
}

}  // namespace kolvan::server::agents
