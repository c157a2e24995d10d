#include "companions/server/agents/AgentEndpoint.h"

#include "basekit2/UniqueFd.h"
#include "companions/server/agents/Bodies.h"
#include "companions/server/http/HttpError.h"
#include "companions/server/http/OnPool.h"
#include "companions/server/protocol/AgentMessage.h"
#include "companions/server/protocol/FormReader.h"
#include "companions/server/protocol/UploadPath.h"
#include "companions/server/store/PackageFiles.h"
#include "companions/server/store/StoreError.h"

#include <boost/asio/post.hpp>
#include <rapidjson/document.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <exception>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

namespace kolvan::server::agents {

namespace {

using http::Awaitable;
using http::Response;
using protocol::AgentMessage;

// Output and traces may have any size; memory does not depend on it.
constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();

Sender senderOf(const AgentMessage& message, const std::string& address) {
    return {message.parameter("agentUuid"), message.parameter("accessToken"), address};
}

std::optional<OutputChannel> channelOf(const std::string& messageType) {
    if (messageType == "collector:stdout") {
        return OutputChannel::Stdout;
    }
    if (messageType == "collector:stderr") {
        return OutputChannel::Stderr;
    }
    if (messageType == "collector:feedback") {
        return OutputChannel::Feedback;
    }
    return std::nullopt;
}

std::optional<int> numberOf(const std::string& text) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole ? std::optional(number) : std::nullopt;
}

AgentMessage messageOf(const Operation& operation) {
    AgentMessage message;
    message.type = operation.messageType;
    rapidjson::Document parameters;
    parameters.Parse(operation.parameters.data(), operation.parameters.size());
    if (parameters.IsObject()) {
        for (const auto& member : parameters.GetObject()) {
            message.parameters.emplace(
                std::string(member.name.GetString(), member.name.GetStringLength()),
                std::string(member.value.GetString(), member.value.GetStringLength()));
        }
    }
    message.parameters["id"] = operation.id.text;
    return message;
}

Response replyOf(const std::vector<AgentMessage>& messages) {
    return http::jsonResponse(protocol::replyJson(messages));
}

/// Keeps the output of one message while it comes.
class OutputIntake {
public:
    OutputIntake(AgentService& agentService, std::string senderAddress)
        : service(agentService), address(std::move(senderAddress)) {}

    /// @throws HttpError when the sender is nobody, or nobody any more: a message may be gigabytes
    ///     long, and its token be revoked meanwhile
    void operator()(const AgentMessage& known, std::string_view bytes) {
        if (!sender) {
            sender = senderOf(known, address);
            channel = channelOf(known.type);
            operation = OperationId(known.parameter("id"));
        }
        const std::optional<AgentId> agent = service.recognise(*sender);
        if (!agent) {
            throw http::HttpError(403, "Output is taken from agents with a valid token only.");
        }
        // Deliberate: output of an operation that nobody knows, or that has ended, is passed over.
        // There is nobody who waits for it.
        if (channel && service.append(*agent, operation, *channel, bytes)) {
            unannounced += bytes.size();
            if (unannounced >= kAnnounced) {
                announce();
            }
        }
    }

    /// To be called at the end, which those who follow the output are told of.
    void finish() {
        if (unannounced != 0) {
            announce();
        }
    }

private:
    // Bytes of one message, after which those who follow its output are not left waiting for its
    // end. Telling them is a change of the database.
    static constexpr std::size_t kAnnounced = std::size_t{1024} * 1024;

    void announce() {
        service.announce(operation, *channel);
        unannounced = 0;
    }

    AgentService& service;
    const std::string address;
    std::optional<Sender> sender;  // as the message says before its output
    std::optional<OutputChannel> channel;
    OperationId operation;
    std::size_t unannounced = 0;
};

/// Puts the files of one form where they belong.
class UploadIntake final : public protocol::FormListener {
public:
    explicit UploadIntake(const AgentSurroundings& surroundings)
        : store(surroundings.store),
          service(surroundings.service),
          collections(surroundings.collections),
          uploads(surroundings.uploads) {}

    void beginPart(const std::string& name, const std::optional<std::string>& fileName) override {
        if (!fileName) {
            return;  // "submit", which says nothing
        }
        const std::optional<std::string> path = protocol::safeUploadPath(name, *fileName);
        place = path ? collections.placeOf(*path) : std::nullopt;
        if (!place || !service.isTrusted(place->agent) ||
            !store.collections().beginFile(place->collection, place->name)) {
            throw http::HttpError(403, "No collection waits for this file.");
        }
        file.emplace(uploads.begin(place->collection, place->name));
    }

    void data(std::string_view piece) override {
        if (!file) {
            return;
        }
        if (!service.isTrusted(place->agent)) {
            throw http::HttpError(403, "The token of this agent was revoked.");
        }
        file->write(piece);
    }

    void endPart() override {
        if (file) {
            const std::uint64_t size = file->keep();
            file.reset();
            store.collections().completeFile(place->collection, place->name, size);
        }
    }

private:
    Store& store;
    AgentService& service;
    Collections& collections;
    const UploadedFiles& uploads;
    std::optional<UploadPlace> place;
    std::optional<IncomingFile> file;
};

/// The poll of one request, which ends with the request. Whoever watches the connection shares it.
struct OpenPoll {
    struct Shared {
        std::unique_ptr<PollTable::Poll> poll;
        bool gone = false;  // the client: it is told once, perhaps while no poll is open
    };
    const std::shared_ptr<Shared> shared = std::make_shared<Shared>();

    OpenPoll() = default;
    OpenPoll(const OpenPoll&) = delete;
    OpenPoll& operator=(const OpenPoll&) = delete;
    ~OpenPoll() { shared->poll.reset(); }
};

std::vector<OperationId> idsOf(const std::vector<Operation>& operations) {
    std::vector<OperationId> ids;
    for (const Operation& operation : operations) {
        ids.push_back(operation.id);
    }
    return ids;
}

std::optional<std::string> valueOf(const http::Query& query, std::string_view name) {
    for (const auto& [key, value] : query) {
        if (key == name) {
            return value;
        }
    }
    return std::nullopt;
}

}  // namespace

void AgentEndpoint::addRoutes(http::Router& router) {
    router.add(
        "POST", "/api/collection-agent/message",
        [this](http::Request& request) { return answer(&AgentEndpoint::takeMessage, request); },
        kNoLimit);
    router.add("GET", "/api/collection-agent/target-package",
               [this](http::Request& request) { return sendPackage(request); });
    router.add(
        "POST", "/api/collection-agent/trace/upload",
        [this](http::Request& request) { return answer(&AgentEndpoint::takeUpload, request); },
        kNoLimit);
}

Awaitable<Response> AgentEndpoint::answer(Handler handler, http::Request& request) {
    try {
        co_return co_await (this->*handler)(request);
    } catch (const StoreError& error) {
        if (error.reason() != StoreError::Reason::Full) {
            throw;
        }
    } catch (const std::system_error& error) {
        if (error.code() != std::errc::no_space_on_device) {
            throw;
        }
    }
    throw http::HttpError(507, "The server's disk is full.");
}

Awaitable<Response> AgentEndpoint::takeMessage(http::Request& request) {
    const std::string& address = request.head().peer;
    OutputIntake intake(surroundings.service, address);
    std::optional<CommandQueue> queue;  // of an agent that asks for its commands
    std::vector<AgentMessage> reply;
    const auto wakePoll = [this](const std::string& key) {
        surroundings.polls.wakeFromAnywhere(key);
    };
    const auto handle = [&](const AgentMessage& message) {
        intake.finish();
        AgentService& service = surroundings.service;
        const Sender sender = senderOf(message, address);
        if (message.type == "connect") {
            if (service.connect(sender, message.parameter("hostname"))) {
                reply.push_back(protocol::messages::connected());
            }
            return;
        }
        const std::optional<AgentId> agent = service.recognise(sender);
        if (message.type == "commands:get") {
            queue.emplace(service, surroundings.store.wakeUps(), sender, agent,
                          CommandQueue::Listeners{wakePoll, surroundings.log});
            queue->look();
        } else if (!agent) {
            return;
        } else if (message.type == "collector:finish") {
            service.finish(*agent, OperationId(message.parameter("id")),
                           numberOf(message.parameter("code")), message.parameter("errorMessage"));
        } else if (message.type == "error") {
            service.reportError(sender, *agent, message.parameter("errorMessage"));
        } else if (message.type == "disconnect") {
            service.leave(sender, *agent);
        }
    };
    co_await readMessage(request, surroundings.threads, std::ref(intake), handle);
    if (queue) {
        co_return co_await answerPoll(request, *queue);
    }
    co_return replyOf(reply);
}

Awaitable<Response> AgentEndpoint::answerPoll(http::Request& request, CommandQueue& queue) {
    const OpenPoll open;
    request.onHangUp([shared = open.shared] {
        shared->gone = true;
        if (shared->poll) {
            shared->poll->end(PollEnd::Gone);
        }
    });
    const auto deadline = std::chrono::steady_clock::now() + HeldPolls::kHoldTime;
    for (;;) {
        open.shared->poll = surroundings.polls.open(queue.key());
        if (open.shared->gone) {
            // An answer would pass for written: the system takes it, and finds out later.
            settle(idsOf(queue.taken()), false);
            co_return replyOf({});
        }
        if (!queue.taken().empty()) {
            co_return commands(queue.taken());
        }
        if (queue.hasLeft()) {
            co_return replyOf({});  // the agent exits when its poll has been answered
        }
        // What has come since the queue was looked at has found no poll to wake.
        const bool missed = queue.hasChanged();
        const PollEnd end =
            missed ? PollEnd::Woken : co_await surroundings.polls.wait(*open.shared->poll);
        // It may be woken for nothing; then it is held on, but not for longer than usual.
        if (end != PollEnd::Woken || std::chrono::steady_clock::now() >= deadline) {
            co_return replyOf({});
        }
        const auto look = [&queue] { queue.look(); };
        co_await http::onPool(surroundings.threads, look);
    }
}

Response AgentEndpoint::commands(const std::vector<Operation>& operations) {
    std::vector<AgentMessage> messages;
    for (const Operation& operation : operations) {
        messages.push_back(messageOf(operation));
    }
    Response response = replyOf(messages);
    response.sent = [this, ids = idsOf(operations)](bool written) { settle(ids, written); };
    return response;
}

void AgentEndpoint::settle(std::vector<OperationId> ids, bool written) {
    if (ids.empty()) {
        return;
    }
    boost::asio::post(surroundings.threads, [this, ids = std::move(ids), written] {
        try {
            if (written) {
                surroundings.store.operations().markWritten(ids);
            } else {
                surroundings.store.operations().giveBack(ids);
            }
        } catch (const std::exception& error) {
            surroundings.log(std::string("A command's fate could not be recorded: ") +
                             error.what());
        }
    });
}

Awaitable<Response> AgentEndpoint::sendPackage(http::Request& request) {
    const std::optional<std::string> name = valueOf(request.query(), "targetPackageArchiveName");
    const auto open = [&]() -> std::optional<http::FileBody> {
        const std::optional<Package> package =
            name ? surroundings.store.packages().find(*name) : std::nullopt;
        if (!package) {
            return std::nullopt;
        }
        const std::filesystem::path path = fileOf(*package, surroundings.packageDirectory);
        auto file =
            std::make_shared<basekit2::UniqueFd>(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!*file) {
            throw std::system_error(errno, std::generic_category(), path.string());
        }
        return http::FileBody{std::move(file), package->sizeBytes};
    };
    std::optional<http::FileBody> body = co_await http::onPool(surroundings.threads, open);
    if (!body) {
        throw http::HttpError(404, "There is no target package of this name.");
    }
    Response response;
    response.fields.emplace_back("Content-Type", "application/octet-stream");
    response.body = std::move(*body);
    co_return response;
}

Awaitable<Response> AgentEndpoint::takeUpload(http::Request& request) {
    UploadIntake intake(surroundings);
    co_await readForm(request, surroundings.threads, intake);
    co_return http::textResponse(200, "text/plain", "");
}

}  // namespace kolvan::server::agents
