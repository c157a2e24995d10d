#include "tests/companions/server/serve/AgentCrowd.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>

#include <exception>
#include <stdexcept>
#include <utility>

namespace kolvan::test {

namespace asio = boost::asio;

using server::http::Awaitable;

namespace {

int countOf(const std::string& text, const std::string& part) {
    int count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

}  // namespace

AgentCrowd::AgentCrowd(unsigned serverPort, std::string agentToken, std::size_t count)
    : server(asio::ip::make_address("127.0.0.1"), static_cast<unsigned short>(serverPort)),
      token(std::move(agentToken)),
      received(count) {
    for (std::size_t number = 0; number < count; ++number) {
        asio::co_spawn(thread.executor(), live(number), asio::detached);
    }
}

AgentCrowd::~AgentCrowd() {
    change([this] { stopping = true; });
}

std::size_t AgentCrowd::accepted() const {
    const std::lock_guard lock(mutex);
    return connected;
}

std::vector<int> AgentCrowd::commands() const {
    const std::lock_guard lock(mutex);
    return received;
}

std::size_t AgentCrowd::answers() const {
    const std::lock_guard lock(mutex);
    return answered;
}

std::vector<std::string> AgentCrowd::failures() const {
    const std::lock_guard lock(mutex);
    return reasons;
}

Awaitable<void> AgentCrowd::live(std::size_t number) {
    const std::string name = "host-" + std::to_string(number);
    const std::string parameters = R"("messageParameters":{"agentUuid":"uuid of )" + name +
                                   R"(","accessToken":")" + token + R"(","hostname":")" + name +
                                   "\"}}";
    try {
        const std::string answer = co_await request(R"({"messageType":"connect",)" + parameters);
        if (answer.find("connected") == std::string::npos) {
            throw std::runtime_error("not accepted: " + answer);
        }
        change([this] { ++connected; });
        for (;;) {
            const std::string commands =
                co_await request(R"({"messageType":"commands:get",)" + parameters);
            change([&] {
                ++answered;
                received[number] += countOf(commands, "collector:execute");
            });
        }
    } catch (const std::exception& error) {
        change([&] { reasons.push_back(name + ": " + error.what()); });
    }
}

Awaitable<std::string> AgentCrowd::request(std::string body) {
    asio::ip::tcp::socket socket(thread.executor());
    co_await socket.async_connect(server, asio::use_awaitable);
    const std::string text =
        "POST /api/collection-agent/message HTTP/1.1\r\nHost: test\r\nConnection: close\r\n"
        "Content-Length: " +
        std::to_string(body.size()) + "\r\n\r\n" + body;
    co_await asio::async_write(socket, asio::buffer(text), asio::use_awaitable);
    std::string answer;
    boost::system::error_code error;
    co_await asio::async_read(socket, asio::dynamic_buffer(answer),
                              asio::redirect_error(asio::use_awaitable, error));
    if (error != asio::error::eof) {
        throw boost::system::system_error(error);
    }
    if (!answer.starts_with("HTTP/1.1 200") || !answer.ends_with("]}")) {
        throw std::runtime_error("no whole answer: '" + answer + "'");
    }
    co_return answer;
}

void AgentCrowd::change(const std::function<void()>& apply) {
    const std::lock_guard lock(mutex);
    if (!stopping) {
        apply();
    }
}

}  // namespace kolvan::test
