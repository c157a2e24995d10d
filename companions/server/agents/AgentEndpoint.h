#pragma once

#include "companions/server/agents/AgentService.h"
#include "companions/server/agents/CommandQueue.h"
#include "companions/server/agents/HeldPolls.h"
#include "companions/server/collections/Collections.h"
#include "companions/server/collections/UploadedFiles.h"
#include "companions/server/http/Router.h"
#include "companions/server/store/Store.h"

#include <boost/asio/thread_pool.hpp>

#include <filesystem>
#include <functional>
#include <string_view>
#include <vector>

namespace kolvan::server::agents {

/// What the endpoint of the agents works with. All of it outlives the endpoint.
struct AgentSurroundings {
    Store& store;
    AgentService& service;
    Collections& collections;
    const UploadedFiles& uploads;
    HeldPolls& polls;
    boost::asio::thread_pool& threads;
    std::filesystem::path packageDirectory;     ///< where the store's packages lie
    std::function<void(std::string_view)> log;  ///< takes a line for the operator, from any thread
};

/// The three addresses of the protocol that agents speak: messages, packages and uploads.
///
/// Threads: that of the network. What blocks is done on the pool.
class AgentEndpoint {
public:
    explicit AgentEndpoint(AgentSurroundings endpointSurroundings)
        : surroundings(std::move(endpointSurroundings)) {}

    /// Adds the routes. This object outlives the router's use.
    void addRoutes(http::Router& router);

private:
    using Handler = http::Awaitable<http::Response> (AgentEndpoint::*)(http::Request&);

    http::Awaitable<http::Response> answer(Handler handler, http::Request& request);
    http::Awaitable<http::Response> takeMessage(http::Request& request);
    http::Awaitable<http::Response> sendPackage(http::Request& request);
    http::Awaitable<http::Response> takeUpload(http::Request& request);

    http::Awaitable<http::Response> answerPoll(http::Request& request, CommandQueue& queue);
    http::Response commands(const std::vector<Operation>& operations);

    /// Records, on the pool, whether commands that were taken have been written.
    void settle(std::vector<OperationId> ids, bool written);

    const AgentSurroundings surroundings;
};

}  // namespace kolvan::server::agents
