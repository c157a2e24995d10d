// Agents that ask for commands for ever, as many as wanted, in one thread. As a real one does, each
// makes a connection of its own for every request, and gives up when one is not answered.
//
// usage: kolvan-bench-crowd PORT plain|tls TOKEN COUNT SECONDS
//
// They are "host-0", "host-1", ... and connect one after the other within SECONDS. Each line on
// standard input is a question for the number of polls, and its end ends the program. Lines on
// standard output:
//
//   connected                                when all have been accepted
//   failed REASON                            when the first one has given up
//   command NAME TIME TYPE ID [DIRECTORY]    when a command has arrived; the time is that of the
//                                            monotonic clock, in seconds, the directory that of
//                                            uploads
//   polls NUMBER                             how many have been answered so far
//
// An operation that is not a collection is said to have ended as soon as its command arrives.

#include "bench/server-load/Network.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <rapidjson/document.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

#include <unistd.h>

namespace kolvan::bench {

namespace {

namespace asio = boost::asio;
using Clock = std::chrono::steady_clock;

std::string textOf(const rapidjson::Value& object, const char* name) {
    const auto found = object.FindMember(name);
    return found != object.MemberEnd() && found->value.IsString() ? found->value.GetString() : "";
}

class Crowd {
public:
    Crowd(Network& ownNetwork, std::string agentToken, std::size_t agents)
        : network(ownNetwork), token(std::move(agentToken)), count(agents) {}

    void begin(Clock::duration within) {
        for (std::size_t number = 0; number < count; ++number) {
            asio::co_spawn(network.executor(), live(number, within * number / count),
                           asio::detached);
        }
    }

    std::size_t polls() const { return answered; }

private:
    struct Agent {
        std::size_t number;
        std::string name;
        std::string identity;  // the parameters that each of its messages has
    };

    Awaitable<void> live(std::size_t number, Clock::duration delay) {
        try {
            asio::steady_timer timer(network.executor(), delay);
            co_await timer.async_wait(asio::use_awaitable);
            const Agent agent = makeAgent(number);
            const rapidjson::Document accepted =
                co_await say(agent, "connect", R"(,"hostname":")" + agent.name + '"');
            if (accepted["messages"].Empty()) {
                throw std::runtime_error("the token is not known");
            }
            if (++connected == count) {
                std::cout << "connected" << std::endl;
            }
            for (;;) {
                co_await obey(agent, co_await say(agent, "commands:get"));
                ++answered;
            }
        } catch (const std::exception& error) {
            if (!failed) {
                std::cout << "failed host-" << number << ": " << error.what() << std::endl;
            }
            failed = true;
        }
    }

    Agent makeAgent(std::size_t number) const {
        char uuid[64];
        (void)std::snprintf(uuid, sizeof uuid, "00000000-0000-4000-8000-%012zu", number);
        return {number, "host-" + std::to_string(number),
                R"("agentUuid":")" + std::string(uuid) + R"(","accessToken":")" + token + '"'};
    }

    Awaitable<void> obey(const Agent& agent, const rapidjson::Document& reply) {
        const auto now = std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
        for (const auto& message : reply["messages"].GetArray()) {
            const std::string type = textOf(message, "messageType");
            const auto& parameters = message["messageParameters"];
            const std::string id = textOf(parameters, "id");
            char time[32];
            (void)std::snprintf(time, sizeof time, "%.6f", now);
            std::cout << "command " << agent.name << ' ' << time << ' ' << type << ' ' << id << ' '
                      << textOf(parameters, "traceUploadDirectory") << std::endl;
            if (type == "collector:execute") {
                (void)co_await say(agent, "collector:finish",
                                   R"(,"id":")" + id + R"(","code":"0")");
            }
        }
    }

    Awaitable<rapidjson::Document> say(const Agent& agent, const std::string& type,
                                       const std::string& more = "") {
        const std::string body = R"({"messageType":")" + type + R"(","messageParameters":{)" +
                                 agent.identity + more + "}}";
        const std::string head = headOf("POST", "/api/collection-agent/message",
                                        "application/x-www-form-urlencoded", body.size());
        const Request request = {asio::buffer(head), asio::buffer(body)};
        const std::string answer = co_await network.exchange(request, agent.number);
        rapidjson::Document reply;
        reply.Parse(answer.c_str());
        if (!reply.IsObject() || !reply.HasMember("messages") || !reply["messages"].IsArray()) {
            throw std::runtime_error("no list of messages: " + answer);
        }
        co_return reply;
    }

    Network& network;
    const std::string token;
    const std::size_t count;
    std::size_t connected = 0;
    std::size_t answered = 0;
    bool failed = false;
};

// Until the end of standard input.
Awaitable<void> answerQuestions(asio::io_context& context, const Crowd& crowd) {
    asio::posix::stream_descriptor input(context, ::dup(STDIN_FILENO));
    std::string line;
    boost::system::error_code error;
    for (;;) {
        const std::size_t length =
            co_await asio::async_read_until(input, asio::dynamic_buffer(line), '\n',
                                            asio::redirect_error(asio::use_awaitable, error));
        if (error) {
            break;
        }
        line.erase(0, length);
        std::cout << "polls " << crowd.polls() << std::endl;
    }
    context.stop();
}

}  // namespace

}  // namespace kolvan::bench

int main(int argc, char* argv[]) {
    using namespace kolvan::bench;
    if (argc != 6) {
        return 2;
    }
    try {
        allowManyDescriptors();
        boost::asio::io_context context(1);
        Network network(context.get_executor(), static_cast<std::uint16_t>(std::stoul(argv[1])),
                        argv[2] == std::string("tls"));
        Crowd crowd(network, argv[3], std::stoul(argv[4]));
        crowd.begin(std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(std::stod(argv[5]))));
        boost::asio::co_spawn(context, answerQuestions(context, crowd), boost::asio::detached);
        context.run();
        std::cout.flush();
        ::_exit(0);  // taking ten thousand connections down one by one is of no use
    } catch (const std::exception& error) {
        std::cerr << "kolvan-bench-crowd: " << error.what() << '\n';
        return 1;
    }
}
