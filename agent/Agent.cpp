#include "agent/Agent.h"

#include "agent/OperationTask.h"
#include "agent/PrintError.h"
#include "basekit2/process/DescriptorBudget.h"
#include "server/AgentConfiguration.h"
#include "server/IServer.h"
#include "server/MessageJson.h"

#include <boost/algorithm/string/split.hpp>
#include <boost/system/system_error.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <array>
#include <cerrno>
#include <exception>
#include <stdexcept>
#include <utility>

#include <unistd.h>

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

}  // namespace

Agent::Agent(const AgentConfiguration& configuration, std::shared_ptr<IServer> server,
             std::shared_ptr<IOperations> operations)
    : agentUuid(makeAgentUuid()),
      accessToken(configuration.accessToken),
      server(std::move(server)),
      operations(std::move(operations)),
      replyHandling([this](const Message& message) { return handleServerMessage(message); },
                    [this](const Message& message) { return exchange(message); }),
      connectionTask(std::async(std::launch::async, [this] { connect(); })) {}

Agent::~Agent() {
    {
        const std::lock_guard lock(stateMutex);
        leaving = true;
    }
    try {
        Agent::disconnect();
    } catch (const std::exception& error) {
        printError(error);
    }
    try {
        connectionTask.get();
    } catch (const std::exception& error) {
        printError(error);
    }
    // An operation that still runs may need what a reply asks for to end, and so may a stop that
    // waits for it: the thread that handles replies is the last to go.
    backgroundStops.finish();
    runningOperations.waitForAll();
    operationReplies.finish();
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

// Blocks while a stop waits for operations: between their ends and "disconnect" no request for
// commands goes out.
bool Agent::shouldPoll() {
    std::unique_lock lock(stateMutex);
    stateChanged.wait(lock, [this] { return stopsWaiting == 0; });
    runningOperations.joinEnded();
    // A server that takes the stop back does not keep an agent that is being destroyed.
    return !leaving && state != AgentState::Stopping;
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
    message = identified(std::move(message));
    handleServerMessages(exchangeRequest(messageToJson(message)));
}

void Agent::sendOperationMessage(Message message) {
    sendOperationRequest(messageToJson(identified(std::move(message))));
}

// For the threads of operations. Whoever stops the agent waits for these, so another thread has
// to do what the reply asks for. Where descriptors are scarce they take turns; what the connection
// says has room of its own.
void Agent::sendOperationRequest(const std::string& request) {
    std::vector<Message> reply;
    {
        const auto place = basekit2::process::descriptor_budget().messages.take();
        reply = exchangeRequest(request);
    }
    if (!reply.empty()) {
        (void)operationReplies.post(
            [this, reply = std::move(reply)] { handleServerMessages(reply); });
    }
}

std::vector<Message> Agent::exchange(const Message& message) {
    return exchangeRequest(messageToJson(identified(message)));
}

std::vector<Message> Agent::exchangeRequest(const std::string& request) {
    const std::string reply = server->sendMessages(request);
    return reply.empty() ? std::vector<Message>() : messagesFromJson(reply);
}

// Every message says who sends it.
Message Agent::identified(Message message) const {
    message.parameters["agentUuid"] = agentUuid;
    message.parameters["accessToken"] = accessToken;
    return message;
}

void Agent::handleServerMessages(const std::vector<Message>& messages) {
    if (operations != nullptr) {
        replyHandling.handleReply(messages);
    }
}

// Returns the server's reply where the message is answered with one of ours.
std::vector<Message> Agent::handleServerMessage(const Message& message) {
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
        return exchange({"collector:operations:cancelled", {}});
    } else if (message.type == "stop") {
        if (!operationReplies.isCurrent()) {
            return stop();
        }
        stopInBackground();
    }
    // Any other type is a newer server's and none of our business.
    return {};
}

void Agent::launchAsyncCollectorOperation(const std::string& id, OperationFunction&& operation) {
    try {
        const std::lock_guard lock(stateMutex);
        if (!leaving && state != AgentState::Stopping && state != AgentState::Stopped) {
            runningOperations.launch(OperationTask(*this, id, std::move(operation)));
        }
    } catch (const std::exception& error) {
        // The server waits for the end of everything that it has launched.
        sendOperationMessage(OperationTask::failed(id, error.what()));
        throw;
    }
}

void Agent::disconnect() {
    handleServerMessages(stop());
}

std::vector<Message> Agent::stop() {
    return beginStopping() ? completeStopping() : std::vector<Message>();
}

// For the thread that handles the replies to operations' messages: it goes on while another one
// waits for the operations, because the next reply may hold what they need to end.
void Agent::stopInBackground() {
    if (!beginStopping()) {
        return;
    }
    const auto complete = [this] {
        replyHandling.handleAction([this] { return completeStopping(); });
    };
    if (!backgroundStops.post(complete)) {
        complete();  // the agent is being destroyed, no operation runs any more
    }
}

// Returns false when the agent is stopping already.
bool Agent::beginStopping() {
    const std::lock_guard lock(stateMutex);
    if (state == AgentState::Stopping || state == AgentState::Stopped) {
        return false;
    }
    state = AgentState::Stopping;
    ++stopsWaiting;
    stateChanged.notify_all();
    return true;
}

// Waits for the operations without the mutex, so that messages are handled meanwhile: a cancel
// among them may be what an operation needs to end. The state keeps launches out as long, and the
// count requests for commands.
std::vector<Message> Agent::completeStopping() {
    runningOperations.waitForAll();
    {
        const std::lock_guard lock(stateMutex);
        --stopsWaiting;
        stateChanged.notify_all();
    }
    return exchange({"disconnect", {}});
}

}  // namespace cagnt1
