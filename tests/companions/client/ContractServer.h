#pragma once

#include "tests/support/RawServer.h"

#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kolvan::client::test {

/// A server that answers each request with the example that stands in the description of the API,
/// and records what nothing is said of there.
///
/// Threads: any member from any thread.
class ContractServer {
public:
    /// Decides about the number-th request of an operation, "listAgents" for example, from 1. True:
    /// it has been answered; false: the example is the answer.
    using Rule = std::function<bool(const std::string& operation, std::size_t number,
                                    const std::string& request, kolvan::test::RawConnection&)>;

    explicit ContractServer(Rule rule = {});

    std::string endpoint() const { return server.endpoint(); }

    /// The requests so far, as "POST /api/v1/collections {body}".
    std::vector<std::string> requests() const;

    /// The requests as they came.
    std::vector<std::string> rawRequests() const { return server.requests(); }

    /// Requests that the description does not know, or with parameters that it does not know.
    std::vector<std::string> complaints() const;

    /// The example of an operation's good answer. @throws std::runtime_error when there is none
    std::string example(const std::string& operation) const;

    /// A whole reply with JSON.
    static std::string json(const std::string& body, int status = 200);

    /// A whole reply with a problem.
    static std::string problem(int status, const std::string& detail);

private:
    struct Operation {
        std::string method;
        std::vector<std::string> path;  // its segments
        std::vector<std::string> parameters;
        int status = 200;
        std::string contentType;
        std::string example;
    };

    static std::map<std::string, Operation> readContract();
    void answer(kolvan::test::RawConnection& connection);
    std::string operationOf(const std::string& method, const std::string& target);

    const std::map<std::string, Operation> operations = readContract();  // by their ids
    const Rule rule;

    mutable std::mutex mutex;  // guards received, unknown and counts
    std::vector<std::string> received;
    std::vector<std::string> unknown;
    std::map<std::string, std::size_t> counts;  // by operation

    kolvan::test::RawServer server;  // last: its threads use the members above
};

}  // namespace kolvan::client::test
