// Sends many requests at the same time, each over a connection of its own, and says how long it
// took until the last one was answered.
//
// usage: kolvan-bench-senders PORT plain|tls JOBS.json
//
// The jobs are an object:
//
//   repeat    how many requests each sender makes, one after the other
//   filling   "bytes", which are any, or "base64"
//   size      of the filling, in bytes
//   senders   a list, each with "method", "target", "type" (of the content), and "before" and
//             "after", between which the filling stands in the body. In a target, "#" stands for
//             the number of the request.
//
// With these, each sender makes one request that announces more than it sends, for bodies that no
// disk has room for; "after" is not sent:
//
//   announced size of the filling that is announced; what is sent of it is "size" again and again
//   until     bytes of all senders' fillings together, after which all of them break off
//
// Prints {"seconds": ..., "least": ...} on the file that JOBS.json names as "result": what it took,
// and how much of its filling the sender has sent that has sent least.

#include "bench/server-load/Network.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <rapidjson/document.h>
#include <rapidjson/istreamwrapper.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <fstream>
#include <iostream>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::bench {

namespace {

namespace asio = boost::asio;

constexpr std::string_view kBase64 =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Bytes without any order: what they are must not make reading them easier than it is.
std::string makeFilling(bool base64, std::size_t size) {
    std::string filling(size, '\0');
    std::minstd_rand random;  // always the same numbers
    for (char& byte : filling) {
        const auto number = random() >> 8U;
        byte = base64 ? kBase64[number % kBase64.size()] : static_cast<char>(number);
    }
    return filling;
}

struct Sender {
    std::string method;
    std::string target;
    std::string type;
    std::string before;
    std::string after;
};

std::string numbered(std::string target, std::size_t number) {
    if (const std::size_t place = target.find('#'); place != std::string::npos) {
        target.replace(place, 1, std::to_string(number));
    }
    return target;
}

Awaitable<void> send(Network& network, const Sender& sender, const std::string& filling,
                     std::size_t repeat, std::size_t origin, Failures& failures) {
    try {
        for (std::size_t number = 0; number < repeat; ++number) {
            const std::string head =
                headOf(sender.method, numbered(sender.target, number), sender.type,
                       sender.before.size() + filling.size() + sender.after.size());
            const Request request = {asio::buffer(head), asio::buffer(sender.before),
                                     asio::buffer(filling), asio::buffer(sender.after)};
            (void)co_await network.exchange(request, origin);  // a failure is thrown
        }
    } catch (const std::exception& error) {
        failures.add(error.what());
    }
}

/// What the senders of bodies that are not sent to their end have to share.
struct Bound {
    std::uint64_t announced = 0;
    std::uint64_t left = 0;  // of all of them together
};

Awaitable<void> sendPart(Network& network, const Sender& sender, const std::string& filling,
                         Bound& bound, std::size_t origin, std::uint64_t& sent,
                         Failures& failures) {
    try {
        const std::string head =
            headOf(sender.method, numbered(sender.target, 0), sender.type,
                   sender.before.size() + bound.announced + sender.after.size());
        const auto goesOn = [&] {
            const bool more =
                bound.left >= filling.size() && sent + filling.size() <= bound.announced;
            bound.left -= more ? filling.size() : 0;
            sent += more ? filling.size() : 0;
            return more;
        };
        const Request beginning = {asio::buffer(head), asio::buffer(sender.before)};
        co_await network.breakOff(beginning, asio::buffer(filling), goesOn, origin);
    } catch (const std::exception& error) {
        failures.add(error.what());
    }
}

rapidjson::Document readJobs(const char* path) {
    std::ifstream file(path);
    rapidjson::IStreamWrapper stream(file);
    rapidjson::Document jobs;
    jobs.ParseStream(stream);
    if (!jobs.IsObject()) {
        throw std::runtime_error("there are no jobs");
    }
    return jobs;
}

void run(std::uint16_t port, bool tls, const rapidjson::Document& jobs) {
    const std::string filling =
        makeFilling(jobs["filling"].GetString() == std::string("base64"), jobs["size"].GetUint64());
    std::vector<Sender> senders;
    for (const auto& job : jobs["senders"].GetArray()) {
        senders.push_back({job["method"].GetString(), job["target"].GetString(),
                           job["type"].GetString(), job["before"].GetString(),
                           job["after"].GetString()});
    }
    asio::io_context context(1);
    Network network(context.get_executor(), port, tls);
    Failures failures;
    const auto begin = std::chrono::steady_clock::now();
    const bool whole = !jobs.HasMember("until");
    const std::uint64_t repeat = jobs["repeat"].GetUint64();
    Bound bound;
    if (!whole) {
        bound = {jobs["announced"].GetUint64(), jobs["until"].GetUint64()};
    }
    std::vector<std::uint64_t> sent(senders.size(), whole ? repeat * filling.size() : 0);
    for (std::size_t number = 0; number < senders.size(); ++number) {
        const Sender& sender = senders[number];
        asio::co_spawn(
            context,
            whole ? send(network, sender, filling, repeat, number, failures)
                  : sendPart(network, sender, filling, bound, number, sent[number], failures),
            asio::detached);
    }
    context.run();
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    if (failures.count != 0) {
        throw std::runtime_error(std::to_string(failures.count) +
                                 " senders have failed: " + failures.first);
    }
    std::ofstream(jobs["result"].GetString())
        << "{\"seconds\":" << taken.count()
        << ",\"least\":" << *std::min_element(sent.begin(), sent.end()) << "}\n";
}

}  // namespace

}  // namespace kolvan::bench

int main(int argc, char* argv[]) {
    using namespace kolvan::bench;
    if (argc != 4) {
        return 2;
    }
    try {
        allowManyDescriptors();
        run(static_cast<std::uint16_t>(std::stoul(argv[1])), argv[2] == std::string("tls"),
            readJobs(argv[3]));
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "kolvan-bench-senders: " << error.what() << '\n';
        return 1;
    }
}
