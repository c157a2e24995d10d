#include "agent/Agent.h"

#include "server/AgentConfiguration.h"
#include "server/IServer.h"
#include "server/MessageJson.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/system/system_error.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace cagnt1 {

namespace {

std::string makeAgentUuid() {
    return to_string(boost::uuids::random_generator()());
}

std::string hostName() {
    std::array<char, 1024> name{};
    if (::gethostname(name.data(), name.size()) != 0) {
        throw boost::system::system_error(errno, boost::system::system_category());
    }
    name.back() = '\0';  // POSIX does not promise an end where a name has been cut
    return name.data();
}

void printError(const std::exception& error) {
    std::cerr << std::string(error.what()) + "\n";
}

// Waits for a task whose failure nobody handles any more.
void waitAndPrintError(std::future<void>& task) {
    try {
        task.get();
    } catch (const std::exception& error) {
        printError(error);
    }
}

bool isReady(const std::future<void>& task) {
    return task.wait_for(std::chrono::seconds::zero()) == std::future_status::ready;
}

}  // namespace

Agent::Agent(const AgentConfiguration& configuration, std::shared_ptr<IServer> serverLink,
             std::shared_ptr<IOperations> operationsFacade)
    : agentUuid(makeAgentUuid()),
      accessToken(configuration.accessToken),
      server(std::move(serverLink)),
      operations(std::move(operationsFacade)),
      operationReplies(
          [this](const std::vector<Message>& messages) { handleServerMessages(messages); }),
      connectionTask(std::async(std::launch::async, [this] { connect(); })) {}

Agent::~Agent() {
    try {
        disconnect();
    } catch (const std::exception& error) {
        printError(error);
    }
    waitAndPrintError(connectionTask);
    operationReplies.finish();
    std::for_each(backgroundStops.begin(), backgroundStops.end(), waitAndPrintError);
}

void Agent::connect() {
    // The two resolved names are the server's to fill in; the agent does not compute them.
    Message announcement{"connect",
                         {{"hostname", hostName()},
                          {"serverResolvedIpAddress", ""},
                          {"serverResolvedHostnames", ""}}};
    sendMessage(announcement);
    if (currentState() != AgentState::Connected) {
        throw std::runtime_error("Failed to connect to the server");
    }
    // No pause of its own: the server holds each request until it has something to say.
    while (shouldPoll()) {
        Message request{"commands:get", {}};
        sendMessage(request);
    }
    const std::lock_guard lock(stateMutex);
    state = AgentState::Stopped;
    hasStopped = true;
    stateChanged.notify_all();
}

// Not before the operations have ended that a stop waits for: "disconnect" follows them, and no
// request for commands goes out in between.
bool Agent::shouldPoll() {
    std::unique_lock lock(stateMutex);
    stateChanged.wait(lock, [this] { return stopsWaiting == 0; });
    joinEndedOperations();
    return state != AgentState::Stopping;
}

// Deliberate: whatever the state is. A server that accepts the agent again has it back, also
// while it is stopping.
void Agent::setState(AgentState newState) {
    const std::lock_guard lock(stateMutex);
    state = newState;
    stateChanged.notify_all();
}

AgentState Agent::currentState() {
    const std::lock_guard lock(stateMutex);
    return state;
}

void Agent::waitUntilStopped() {
    std::unique_lock lock(stateMutex);
    stateChanged.wait(lock, [this] { return hasStopped; });
}

void Agent::sendMessage(Message& message) {
    const std::vector<Message> reply = exchange(message);
    handleServerMessages(reply);
}

// For threads that somebody who stops the agent may be waiting for: they must not wait themselves
// for anything that the reply asks for.
void Agent::sendOperationMessage(Message& message) {
    operationReplies.add(exchange(message));
}

std::vector<Message> Agent::exchange(Message& message) {
    message.parameters["agentUuid"] = agentUuid;
    message.parameters["accessToken"] = accessToken;
    const std::string reply = server->sendMessages(messageToJson(message));
    return reply.empty() ? std::vector<Message>() : messagesFromJson(reply);
}

void Agent::handleServerMessages(const std::vector<Message>& messages) {
    if (operations == nullptr) {
        return;
    }
    for (const Message& message : messages) {
        reportFailures([this, &message] { handleServerMessage(message); });
    }
}

// A failure of the action becomes an "error" message; a failure to send that one passes on.
void Agent::reportFailures(const std::function<void()>& action) {
    std::string failure;
    try {
        action();
        return;
    } catch (const std::exception& error) {
        failure = error.what();
    }
    Message report = makeErrorMessage(failure);
    sendMessage(report);
}

void Agent::handleServerMessage(const Message& message) {
    const std::string id = message.parameter("id");
    if (message.type == "connected") {
        setState(AgentState::Connected);
        operations->onConnect();
    } else if (message.type == "disconnected") {
        operations->onDisconnect();
    } else if (message.type == "error") {
        operations->onError(message.parameter("errorMessage", "Unspecified error."));
    } else if (message.type == "collector:execute") {
        launchAsyncCollectorOperation(
            id, [this, message](IOperations::OperationMessenger&& messenger) {
                // Deliberate: one blank separates, nothing quotes. Two blanks in a row have an
                // empty argument between them, and an empty text is one empty argument.
                std::vector<std::string> args;
                boost::algorithm::split(args, message.parameter("args"),
                                        [](char character) { return character == ' '; });
                return operations->execute(std::move(args), std::move(messenger));
            });
    } else if (message.type == "collector:collection:start") {
        launchAsyncCollectorOperation(
            id, [this, message](IOperations::OperationMessenger&& messenger) {
                return operations->performCollection(message.parameter("options"),
                                                     message.parameter("traceUploadDirectory"),
                                                     std::move(messenger));
            });
    } else if (message.type == "collector:collection:command") {
        launchAsyncCollectorOperation(id,
                                      [this, message](IOperations::OperationMessenger&& messenger) {
                                          return operations->collectionCommand(
                                              message.parameter("command"), std::move(messenger));
                                      });
    } else if (message.type == "collector:operations:cancel") {
        operations->cancelOperations();
        Message cancelled{"collector:operations:cancelled", {}};
        sendMessage(cancelled);
    } else if (message.type == "stop") {
        if (operationReplies.isHandlingThread()) {
            stopInBackground();
        } else {
            disconnect();
        }
    }
    // Any other type is a newer server's and none of our business.
}

void Agent::launchAsyncCollectorOperation(const std::string& id, OperationFunction&& operation) {
    const std::lock_guard lock(stateMutex);
    if (state == AgentState::Stopping || state == AgentState::Stopped) {
        return;
    }
    joinEndedOperations();
    // The task gives its id and function away when it runs: its future stays in the list for as
    // long as the agent is connected, and must not keep the message that asked for it.
    unjoinedOperations.push_back(runningOperations.size());
    try {
        runningOperations.push_back(std::async(
            std::launch::async,
            [this, operationId = id, operation = std::move(operation)]() mutable {
                runOperation(std::exchange(operationId, {}), std::exchange(operation, {}));
            }));
    } catch (...) {
        unjoinedOperations.pop_back();
        throw;
    }
}

// With stateMutex held. A finished task's thread lives on, as far as its stack goes, until
// somebody waits for its future.
void Agent::joinEndedOperations() {
    std::erase_if(unjoinedOperations, [this](std::size_t position) {
        std::future<void>& operation = runningOperations[position];
        if (!isReady(operation)) {
            return false;
        }
        operation.wait();
        return true;
    });
}

void Agent::disconnect() {
    if (auto operationsToEnd = beginStopping()) {
        completeStopping(std::move(*operationsToEnd));
    }
}

// Returns the operations to wait for, or nothing when the agent is stopping already.
std::optional<std::vector<std::future<void>>> Agent::beginStopping() {
    const std::lock_guard lock(stateMutex);
    if (state == AgentState::Stopping || state == AgentState::Stopped) {
        return std::nullopt;
    }
    state = AgentState::Stopping;
    ++stopsWaiting;
    stateChanged.notify_all();
    unjoinedOperations.clear();
    return std::exchange(runningOperations, {});
}

// The operations are waited for without the mutex: a message that arrives meanwhile is handled at
// once, because a cancel among them may be what an operation needs to end. Those that the state
// keeps out, launches and requests for commands, stay out as long.
void Agent::completeStopping(std::vector<std::future<void>> operationsToEnd) {
    std::for_each(operationsToEnd.begin(), operationsToEnd.end(), waitAndPrintError);
    {
        const std::lock_guard lock(stateMutex);
        --stopsWaiting;
        stateChanged.notify_all();
    }
    Message farewell{"disconnect", {}};
    sendMessage(farewell);
}

// For the thread that handles the replies to operations' messages: it goes on while another one
// waits for the operations, because the next reply may hold what they need to end.
void Agent::stopInBackground() {
    auto operationsToEnd = beginStopping();
    if (!operationsToEnd) {
        return;
    }
    std::erase_if(backgroundStops, isReady);
    const auto ending =
        std::make_shared<std::vector<std::future<void>>>(std::move(*operationsToEnd));
    const auto complete = [this, ending] {
        reportFailures([this, &ending] { completeStopping(std::move(*ending)); });
    };
    try {
        backgroundStops.push_back(std::async(std::launch::async, complete));
    } catch (const std::system_error&) {
        // No thread to be had: better to make later replies wait than not to stop.
        complete();
    }
}

}  // namespace cagnt1
