#include "tests/support/standin/ProfilingServer.h"

#include "tests/support/standin/CommandQueue.h"
#include "tests/support/standin/ConnectionThreads.h"
#include "tests/support/standin/PackageDirectory.h"
#include "tests/support/standin/ThreadSignals.h"
#include "tests/support/standin/UploadForm.h"

#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#include <sys/socket.h>

namespace kolvan::test {
namespace {

// The doubled slash is what an agent sends whose configured address ends in one.
constexpr const char* kMessagePath = "/+api/collection-agent/message";
constexpr const char* kPackagePath = "/+api/collection-agent/target-package";
constexpr const char* kUploadPath = "/+api/collection-agent/trace/upload";

constexpr std::size_t kMostThreads = 4096;
constexpr std::size_t kDownloadPiece = 256 * 1024;
constexpr std::chrono::seconds kTransferTimeout{30};
constexpr time_t kFirstByteTimeoutSeconds = 10;

constexpr const char* kJsonType = "application/json";
constexpr const char* kTextType = "text/plain";

std::unique_ptr<httplib::Server> makeHttpServer(const ServerSettings& settings) {
    const KeepSigpipeDisposition keepDisposition;
    if (settings.certificateFile.empty() && settings.keyFile.empty()) {
        return std::make_unique<httplib::Server>();
    }
    auto server = std::make_unique<httplib::SSLServer>(settings.certificateFile.c_str(),
                                                       settings.keyFile.c_str());
    if (!server->is_valid()) {
        throw std::runtime_error("Certificate " + settings.certificateFile.string() + " and key " +
                                 settings.keyFile.string() + " cannot be used");
    }
    return server;
}

/// Reads a request's body. The library takes forms apart by itself, and everything else as it is.
bool readAsItIs(const httplib::Request& request, const httplib::ContentReader& readContent,
                const httplib::ContentReceiver& take) {
    // The request itself is no constant; it is only shown as one to whoever answers it.
    const_cast<httplib::Request&>(request).headers.erase("Content-Type");
    return readContent(take);
}

}  // namespace

class ProfilingServer::Implementation {
public:
    explicit Implementation(ServerSettings serverSettings);
    ~Implementation();

    void answerWith(Answer newAnswer);
    bool waitUntil(const std::function<bool(const ServerRecords&)>& holds,
                   std::chrono::milliseconds timeout) const;

    template <typename Query>
    auto read(Query&& query) const {
        const std::lock_guard lock(recordsMutex);
        return query(records);
    }

    const ServerSettings settings;
    CommandQueue commands;
    int port = 0;

private:
    void addRoutes();
    void listen();

    void handleMessage(const httplib::Request& request, httplib::Response& response,
                       const httplib::ContentReader& readContent);
    void handlePackage(const httplib::Request& request, httplib::Response& response);
    void handleUpload(const httplib::Request& request, httplib::Response& response,
                      const httplib::ContentReader& readContent);

    void recordArrival(const ArrivedMessage& arrived, bool tokenAccepted);
    void recordSent(const std::vector<AgentMessage>& sent);
    void reportProblem(const std::string& problem);
    std::vector<AgentMessage> answerTo(const AgentMessage& message);
    std::vector<AgentMessage> usualAnswer(const AgentMessage& message);

    /// Changes the records under their lock and wakes whoever waits for them.
    template <typename Change>
    void record(Change&& change) {
        const std::lock_guard lock(recordsMutex);
        change(records);
        changed.notify_all();
    }

    std::mutex arrivalMutex;  // one event at a time for observer and records; before recordsMutex
    mutable std::mutex recordsMutex;  // guards records and answer; no other lock is taken under it
    mutable std::condition_variable changed;
    ServerRecords records;
    Answer answer;

    std::atomic<bool> stopping{false};
    std::unique_ptr<UploadStore> uploadStore;
    int listeningSocket = -1;
    std::unique_ptr<httplib::Server> http;
    std::thread listener;
};

ProfilingServer::Implementation::Implementation(ServerSettings serverSettings)
    : settings(std::move(serverSettings)), records(settings.keepOutput) {
    if (!settings.uploadDirectory.empty()) {
        uploadStore = std::make_unique<UploadStore>(settings.uploadDirectory);
    }
    http = makeHttpServer(settings);
    addRoutes();
    listen();
}

ProfilingServer::Implementation::~Implementation() {
    stopping = true;
    commands.close();
    http->stop();
    listener.join();
}

void ProfilingServer::Implementation::addRoutes() {
    // Read piece by piece: the library refuses bodies of the type that an agent sends messages with
    // when it reads them itself and they are longer than a few thousand bytes.
    http->Post(kMessagePath, [this](const httplib::Request& request, httplib::Response& response,
                                    const httplib::ContentReader& readContent) {
        handleMessage(request, response, readContent);
    });
    http->Get(kPackagePath, [this](const httplib::Request& request, httplib::Response& response) {
        handlePackage(request, response);
    });
    http->Post(kUploadPath, [this](const httplib::Request& request, httplib::Response& response,
                                   const httplib::ContentReader& readContent) {
        handleUpload(request, response, readContent);
    });
}

void ProfilingServer::Implementation::listen() {
    const auto accepting = std::make_shared<std::promise<void>>();
    http->new_task_queue = [accepting] {
        // The library is about to accept; from here on `stop()` is heard.
        accepting->set_value();
        return new ConnectionThreads(kMostThreads);
    };
    http->set_tcp_nodelay(true);
    http->set_read_timeout(kTransferTimeout);
    http->set_write_timeout(kTransferTimeout);
    http->set_keep_alive_timeout(kFirstByteTimeoutSeconds);
    // An agent makes a connection for every request. One that stays open would only hold a thread.
    http->set_keep_alive_max_count(1);
    http->set_socket_options([this](int socket) {
        // Only this: sharing a given port with another process would hide the mistake.
        const int on = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        listeningSocket = socket;
    });
    port = settings.port;
    if (settings.port == 0) {
        port = http->bind_to_any_port(settings.address);
    } else if (!http->bind_to_port(settings.address, settings.port)) {
        port = -1;
    }
    if (port < 0) {
        throw std::runtime_error("Cannot listen on " + settings.address + " port " +
                                 std::to_string(settings.port));
    }
    // The library's own queue is 5 connections long, too short for a collection's uploads.
    ::listen(listeningSocket, SOMAXCONN);
    const BlockSignals blockSignals;
    listener = std::thread([this] { http->listen_after_bind(); });
    accepting->get_future().wait();
}

void ProfilingServer::Implementation::handleMessage(const httplib::Request& request,
                                                    httplib::Response& response,
                                                    const httplib::ContentReader& readContent) {
    response.set_content(replyJson({}), kJsonType);
    std::string body;
    const auto append = [&body](const char* data, std::size_t length) {
        body.append(data, length);
        return true;
    };
    if (!readAsItIs(request, readContent, append)) {
        reportProblem("a message was cut off after " + std::to_string(body.size()) + " bytes");
        return;
    }
    ArrivedMessage arrived;
    try {
        arrived = readMessage(body);
    } catch (const server::protocol::ProtocolError& error) {
        response.status = 400;
        reportProblem(std::string("not a message: ") + error.what() + ": " + body.substr(0, 200));
        return;
    }
    const AgentMessage& message = arrived.message;
    const bool tokenAccepted =
        settings.accessToken.empty() || message.parameter("accessToken") == settings.accessToken;
    recordArrival(arrived, tokenAccepted);
    if (!tokenAccepted) {
        response.status = 403;
        reportProblem("wrong access token in " + message.type);
        return;
    }
    const std::vector<AgentMessage> sent = answerTo(message);
    recordSent(sent);
    response.set_content(replyJson(sent), kJsonType);
}

void ProfilingServer::Implementation::recordArrival(const ArrivedMessage& arrived,
                                                    bool tokenAccepted) {
    const AgentMessage& message = arrived.message;
    const std::lock_guard arrivalLock(arrivalMutex);
    std::vector<std::string> problems;
    std::optional<OutputChunk> chunk;
    if (tokenAccepted) {
        if (settings.observer.onMessage) {
            settings.observer.onMessage(message);
        }
        chunk = OutputLog::outputOf(arrived, problems);
        if (chunk && settings.observer.onOutput) {
            settings.observer.onOutput(*chunk);
        }
    }
    record([&](ServerRecords& current) {
        current.transcript.push_back({current.transcript.size(), std::chrono::steady_clock::now(),
                                      tokenAccepted, message, arrived.output.size()});
        if (chunk) {
            current.operations.addOutput(*chunk, problems);
        }
        if (tokenAccepted && message.type == "collector:finish") {
            current.operations.addFinish(message, problems);
        }
        current.protocolErrors.insert(current.protocolErrors.end(), problems.begin(),
                                      problems.end());
    });
    if (settings.observer.onProblem) {
        std::for_each(problems.begin(), problems.end(), settings.observer.onProblem);
    }
}

void ProfilingServer::Implementation::recordSent(const std::vector<AgentMessage>& sent) {
    if (sent.empty()) {
        return;
    }
    record([&](ServerRecords& current) {
        for (const AgentMessage& command : sent) {
            current.operations.addCommand(command);
        }
    });
}

void ProfilingServer::Implementation::reportProblem(const std::string& problem) {
    const std::lock_guard arrivalLock(arrivalMutex);
    record([&](ServerRecords& current) { current.protocolErrors.push_back(problem); });
    if (settings.observer.onProblem) {
        settings.observer.onProblem(problem);
    }
}

std::vector<AgentMessage> ProfilingServer::Implementation::answerTo(const AgentMessage& message) {
    const Answer decide = [this] {
        const std::lock_guard lock(recordsMutex);
        return answer;
    }();
    if (decide) {
        if (auto decided = decide(message)) {
            return std::move(*decided);
        }
    }
    return usualAnswer(message);
}

std::vector<AgentMessage> ProfilingServer::Implementation::usualAnswer(
    const AgentMessage& message) {
    const std::string agent = message.parameter("agentUuid");
    if (message.type == "commands:get") {
        return commands.take(agent, settings.pollTimeout);
    }
    if (message.type == "connect") {
        // A poll that is still being held belongs to an agent that has gone without a word.
        commands.releasePolls();
        if (settings.answerConnect) {
            return {messages::connected()};
        }
    }
    if (message.type == "disconnect" && settings.releasePollsOnDisconnect) {
        commands.releaseAgent(agent);
    }
    return {};
}

void ProfilingServer::Implementation::handlePackage(const httplib::Request& request,
                                                    httplib::Response& response) {
    std::string name = rawPackageName(request.target);
    std::shared_ptr<const PackageFile> file = openPackage(settings.packageDirectory, name);
    if (!file) {
        // Not under the name as it was sent: a client that does encode means the decoded one.
        const std::string decoded = request.get_param_value("targetPackageArchiveName");
        file = openPackage(settings.packageDirectory, decoded);
        name = file ? decoded : name;
    }
    {
        const std::lock_guard arrivalLock(arrivalMutex);
        record([&](ServerRecords& current) {
            current.packageRequests.push_back({name, file != nullptr});
        });
        if (settings.observer.onPackage) {
            settings.observer.onPackage(name, file != nullptr);
        }
    }
    if (!file) {
        response.status = 404;
        response.set_content("There is no such package.\n", kTextType);
        return;
    }
    if (file->size() == 0) {
        return;
    }
    response.set_content_provider(
        file->size(), "application/octet-stream",
        [file](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
            const auto data = file->read(offset, std::min(length, kDownloadPiece));
            return data && !data->empty() && sink.write(data->data(), data->size());
        });
}

void ProfilingServer::Implementation::handleUpload(const httplib::Request& request,
                                                   httplib::Response& response,
                                                   const httplib::ContentReader& readContent) {
    auto form =
        std::make_unique<UploadForm>(request.get_header_value("Content-Type"), uploadStore.get());
    const auto put = [&](const char* data, std::size_t length) {
        form->put({data, length});
        return !stopping.load();
    };
    if (!readAsItIs(request, readContent, put)) {
        const std::string fileName = form->fileName();
        form.reset();  // the report finds nothing of the file any more
        reportProblem("the upload of '" + fileName + "' was cut off");
        return;
    }
    if (const auto upload = form->keep()) {
        // Nothing is said about a success: an agent prints the answer among its own lines.
        record([&](ServerRecords& current) { current.uploads.push_back(*upload); });
        return;
    }
    response.status = 400;
    response.set_content(form->failure() + "\n", kTextType);
    reportProblem("the upload of '" + form->fileName() + "' was refused: " + form->failure());
}

void ProfilingServer::Implementation::answerWith(Answer newAnswer) {
    const std::lock_guard lock(recordsMutex);
    answer = std::move(newAnswer);
}

bool ProfilingServer::Implementation::waitUntil(
    const std::function<bool(const ServerRecords&)>& holds,
    std::chrono::milliseconds timeout) const {
    std::unique_lock lock(recordsMutex);
    return changed.wait_for(lock, timeout, [&] { return holds(records); });
}

ProfilingServer::ProfilingServer(ServerSettings settings)
    : implementation(std::make_unique<Implementation>(std::move(settings))) {}

ProfilingServer::~ProfilingServer() = default;

std::string ProfilingServer::endpoint() const {
    const ServerSettings& settings = implementation->settings;
    const bool numericV6 = settings.address.find(':') != std::string::npos;
    return (settings.certificateFile.empty() ? "http://" : "https://") +
           (numericV6 ? "[" + settings.address + "]" : settings.address) + ":" +
           std::to_string(port());
}

int ProfilingServer::port() const {
    return implementation->port;
}

void ProfilingServer::send(AgentMessage command) {
    implementation->commands.push({std::move(command)});
}

void ProfilingServer::send(std::vector<AgentMessage> commands) {
    implementation->commands.push(std::move(commands));
}

void ProfilingServer::answerWith(Answer answer) {
    implementation->answerWith(std::move(answer));
}

void ProfilingServer::releasePolls() {
    implementation->commands.releasePolls();
}

bool ProfilingServer::waitUntil(const std::function<bool(const ServerRecords&)>& holds,
                                std::chrono::milliseconds timeout) const {
    return implementation->waitUntil(holds, timeout);
}

bool ProfilingServer::waitForMessage(const std::string& type, std::size_t count,
                                     std::chrono::milliseconds timeout) const {
    return waitUntil([&](const ServerRecords& records) { return records.count(type) >= count; },
                     timeout);
}

std::optional<OperationResult> ProfilingServer::waitForFinish(const std::string& id,
                                                              std::chrono::milliseconds timeout,
                                                              std::size_t occurrence) const {
    std::optional<OperationResult> result;
    waitUntil(
        [&](const ServerRecords& records) {
            const OperationRecord* const operation = records.operations.find(id);
            if (operation != nullptr && operation->results.size() >= occurrence) {
                result = operation->results[occurrence - 1];
            }
            return result.has_value();
        },
        timeout);
    return result;
}

bool ProfilingServer::waitForOutput(const std::string& id, Channel channel, const std::string& text,
                                    std::chrono::milliseconds timeout) const {
    return waitUntil(
        [&](const ServerRecords& records) {
            const OperationRecord* const operation = records.operations.find(id);
            return operation != nullptr &&
                   operation->channel(channel).text.find(text) != std::string::npos;
        },
        timeout);
}

bool ProfilingServer::waitForUploads(std::size_t count, std::chrono::milliseconds timeout) const {
    return waitUntil([&](const ServerRecords& records) { return records.uploads.size() >= count; },
                     timeout);
}

bool ProfilingServer::waitForHeldPolls(std::size_t count, std::chrono::milliseconds timeout) const {
    return implementation->commands.waitForHeldPolls(count, timeout);
}

Transcript ProfilingServer::transcript() const {
    return implementation->read([](const ServerRecords& records) { return records.transcript; });
}

std::size_t ProfilingServer::count(const std::string& type) const {
    return implementation->read([&](const ServerRecords& records) { return records.count(type); });
}

std::optional<OperationRecord> ProfilingServer::operation(const std::string& id) const {
    return implementation->read([&](const ServerRecords& records) {
        const OperationRecord* const found = records.operations.find(id);
        return found == nullptr ? std::nullopt : std::optional(*found);
    });
}

std::string ProfilingServer::output(const std::string& id, Channel channel) const {
    const auto found = operation(id);
    return found ? found->channel(channel).text : std::string();
}

std::vector<UploadRecord> ProfilingServer::uploads() const {
    return implementation->read([](const ServerRecords& records) { return records.uploads; });
}

std::vector<PackageRequest> ProfilingServer::packageRequests() const {
    return implementation->read(
        [](const ServerRecords& records) { return records.packageRequests; });
}

std::vector<std::string> ProfilingServer::protocolErrors() const {
    return implementation->read(
        [](const ServerRecords& records) { return records.protocolErrors; });
}

}  // namespace kolvan::test
