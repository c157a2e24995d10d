// The input is what a server says to one agent: a line for each of its answers, in the order in
// which requests come, from whatever thread; an answer is its messages, a letter each.
//
//   c connected   d disconnected   r error   s stop   x cancel   u of an unknown type
//   e execute   l collection   m command, each followed by what the operation does:
//     0 nothing, 1 to 3 writes that many pieces on every channel, 4 writes and fails,
//     5 waits for a cancel, 6 writes after its cancel, 7 returns -1
//
// and, for the answer as a whole: ! the transport fails, ? a message without a type, g no JSON,
// ~ the answer takes its time, D somebody disconnects the agent meanwhile, E the next call of the
// facade that is no operation fails.
#include "agent/Agent.h"

#include "server/AgentConfiguration.h"
#include "server/IServer.h"
#include "server/MessageJson.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/support/Messages.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <time.h>

// The delayed sends are to meet as many other things as possible in little time.
extern "C" int nanosleep(const timespec* duration, timespec* remaining) {
    const timespec brief{duration->tv_sec, duration->tv_nsec / 100};
    return ::clock_nanosleep(CLOCK_REALTIME, 0, &brief, remaining) == 0 ? 0 : -1;
}

namespace {

using cagnt1::Message;
using kolvan::test::Messages;
using namespace kolvan::fuzz;
using namespace std::chrono_literals;

constexpr std::size_t kMaxAnswers = 48;
constexpr std::size_t kMaxLaunches = 24;

// How long something is held up at most, for the sake of disturbance only.
constexpr auto kWhile = 2ms;

constexpr const char* kToken = "token";

std::string letters(const std::string& line, const std::string& wanted) {
    std::string found;
    std::copy_if(line.begin(), line.end(), std::back_inserter(found),
                 [&](char letter) { return wanted.find(letter) != std::string::npos; });
    return found;
}

bool has(const std::string& line, char letter) {
    return line.find(letter) != std::string::npos;
}

// What the server and the operations have seen. The id of an operation is its number.
struct Record {
    struct Request {
        Message message;
        bool failed = false;  // the answer is none, or one that cannot be read
    };
    struct Operation {
        char behaviour = '0';
        bool launchedByConnection = false;  // in an answer to the connection task
        int calls = 0;
        std::string written;  // on each of the three channels
        bool ended = false;
        bool threw = false;
    };

    // Guards requests, operations, connectionThread, connectedSaid, stopSaid, scriptEnded, cancels
    // and nextCallFails.
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Request> requests;
    std::map<std::string, Operation> operations;
    std::thread::id connectionThread;
    int connectedSaid = 0;
    bool stopSaid = false;  // before the script's end, by the server or by somebody who disconnects
    bool scriptEnded = false;
    int cancels = 0;
    bool nextCallFails = false;
};

class Operations : public cagnt1::IAgent::IOperations {
public:
    explicit Operations(std::shared_ptr<Record> shared) : record(std::move(shared)) {}

    void onConnect() override { failIfAsked(); }
    void onDisconnect() override { failIfAsked(); }
    void onError(const std::string&) override { failIfAsked(); }
    int execute(std::vector<std::string> args, OperationMessenger&& messenger) override {
        return perform(args.at(1), std::move(messenger));
    }
    int performCollection(std::string, std::string directory,
                          OperationMessenger&& messenger) override {
        return perform(directory, std::move(messenger));
    }
    int collectionCommand(std::string command, OperationMessenger&& messenger) override {
        return perform(command, std::move(messenger));
    }
    void cancelOperations() override {
        {
            const std::lock_guard lock(record->mutex);
            ++record->cancels;
            record->changed.notify_all();
        }
        failIfAsked();
    }

private:
    void failIfAsked() {
        const std::lock_guard lock(record->mutex);
        if (std::exchange(record->nextCallFails, false)) {
            throw std::runtime_error("refused");
        }
    }

    int perform(const std::string& id, OperationMessenger&& given) {
        const OperationMessenger messenger = std::move(given);
        char behaviour = '0';
        {
            const std::lock_guard lock(record->mutex);
            require(record->operations.count(id) == 1, "only what the server asked for is run");
            Record::Operation& operation = record->operations[id];
            ++operation.calls;
            behaviour = operation.behaviour;
        }
        if (behaviour == '5' || behaviour == '6') {
            waitForCancel();
        }
        if (has("12346", behaviour)) {
            write(id, behaviour <= '3' ? behaviour - '0' : 2, messenger);
        }
        const std::lock_guard lock(record->mutex);
        record->operations[id].ended = true;
        if (behaviour == '4') {
            record->operations[id].threw = true;
            throw std::runtime_error("failed");
        }
        return behaviour == '7' ? -1 : 0;
    }

    void waitForCancel() {
        std::unique_lock lock(record->mutex);
        const int before = record->cancels;
        (void)record->changed.wait_for(lock, kWhile, [&] { return record->cancels > before; });
    }

    // From a thread for each channel: the channels do not count on coming from one, as they do from
    // a collector's pipes.
    void write(const std::string& id, int pieces, const OperationMessenger& messenger) {
        std::vector<std::string> texts;
        std::string whole;
        for (int piece = 0; piece < pieces; ++piece) {
            texts.push_back(id + "." + std::to_string(piece) + ";");
            whole += texts.back();
        }
        {
            const std::lock_guard lock(record->mutex);
            record->operations[id].written = whole;
        }
        const auto writeAll = [&texts](const std::function<void(const std::string&)>& channel) {
            for (const std::string& text : texts) {
                channel(text);
                std::this_thread::yield();
            }
        };
        std::thread feedback(writeAll, std::cref(messenger.onFeedback));
        std::thread errors(writeAll, std::cref(messenger.onStderr));
        writeAll(messenger.onStdout);
        feedback.join();
        errors.join();
    }

    const std::shared_ptr<Record> record;
};

class Server : public cagnt1::IServer {
public:
    Server(std::shared_ptr<Record> shared, const std::string& script) : record(std::move(shared)) {
        for (const std::string& line : split(script, '\n')) {
            if (lines.size() < kMaxAnswers) {
                lines.push_back(line);
            }
        }
    }

    // The agent of the run, for those who disconnect it; it is there while these wait.
    void setAgent(cagnt1::Agent* running) {
        const std::lock_guard lock(record->mutex);
        agent = running;
        record->changed.notify_all();
    }

    void joinDisconnections() {
        std::vector<std::thread> ending;
        {
            const std::lock_guard lock(record->mutex);
            agentLeaves = true;
            ending.swap(disconnections);
        }
        for (std::thread& disconnecting : ending) {
            disconnecting.join();
        }
    }

    std::string sendMessages(const std::string& requestJson) override {
        const Messages messages = cagnt1::messagesFromJson("{\"messages\":[" + requestJson + "]}");
        require(messages.size() == 1, "a request is one message");
        const Message& request = messages.front();

        std::unique_lock lock(record->mutex);
        const std::string line = nextLine(request.type);
        record->requests.push_back({request, !letters(line, "!?").empty()});
        record->changed.notify_all();
        if (request.type == "connect") {
            record->connectionThread = std::this_thread::get_id();
        }
        if (!letters(line, "!?g").empty()) {
            return unreadableReply(line);
        }
        const Messages reply = messagesOf(line);
        disturb(line, lock);
        return reply.empty() ? std::string() : cagnt1::messagesToJson(reply);
    }

    bool downloadTargetPackage(const std::string&, const std::string&) override { return true; }
    bool uploadTraceFile(const std::string&, const std::string&) override { return true; }

private:
    // With the mutex held, like all of the following.
    std::string nextLine(const std::string& type) {
        if (position < lines.size()) {
            return lines[position++];
        }
        record->scriptEnded = true;
        record->changed.notify_all();
        return type == "connect" ? "c" : type == "commands:get" ? "s" : "";
    }

    Messages messagesOf(const std::string& line) {
        Messages messages;
        for (std::size_t index = 0; index < line.size(); ++index) {
            switch (line[index]) {
                case 'c':
                    messages.push_back(kolvan::test::connected());
                    ++record->connectedSaid;
                    break;
                case 'd':
                    messages.push_back(kolvan::test::disconnected());
                    break;
                case 'r':
                    messages.push_back(kolvan::test::serverError("reason"));
                    break;
                case 's':
                    messages.push_back(kolvan::test::stop());
                    record->stopSaid = record->stopSaid || !record->scriptEnded;
                    break;
                case 'x':
                    messages.push_back(kolvan::test::cancel());
                    break;
                case 'u':
                    messages.push_back({"later:type", {{"id", "1"}}});
                    break;
                case 'e':
                case 'l':
                case 'm':
                    if (record->operations.size() < kMaxLaunches) {
                        messages.push_back(
                            launch(line[index], index + 1 < line.size() ? line[index + 1] : '0'));
                    }
                    break;
                default:
                    break;
            }
        }
        return messages;
    }

    Message launch(char kind, char behaviour) {
        const std::string id = std::to_string(record->operations.size());
        record->operations[id].behaviour = behaviour;
        record->operations[id].launchedByConnection =
            std::this_thread::get_id() == record->connectionThread;
        switch (kind) {
            case 'e':
                return kolvan::test::execute(id, "run " + id);
            case 'l':
                return kolvan::test::startCollection(id, "-a\n1", id);
            default:
                return kolvan::test::collectionCommand(id, id);
        }
    }

    static std::string unreadableReply(const std::string& line) {
        if (has(line, '!')) {
            throw std::runtime_error("broken");
        }
        return has(line, '?') ? R"({"messages":[{}]})" : "garbage";
    }

    void disturb(const std::string& line, std::unique_lock<std::mutex>& lock) {
        record->nextCallFails = record->nextCallFails || has(line, 'E');
        if (has(line, 'D') && !agentLeaves) {
            record->stopSaid = true;
            disconnections.emplace_back([this] { disconnectAgent(); });
        }
        if (has(line, '~')) {
            const std::size_t before = record->requests.size();
            (void)record->changed.wait_for(lock, kWhile,
                                           [&] { return record->requests.size() > before; });
        }
    }

    void disconnectAgent() {
        cagnt1::Agent* running = nullptr;
        {
            std::unique_lock lock(record->mutex);
            record->changed.wait(lock, [this] { return agent != nullptr; });
            running = agent;
        }
        try {
            running->disconnect();
        } catch (const std::exception&) {
            // The transport failed; whoever disconnects is told.
        }
    }

    const std::shared_ptr<Record> record;
    std::vector<std::string> lines;  // guarded, like all of the following, by the record's mutex
    std::size_t position = 0;
    cagnt1::Agent* agent = nullptr;
    bool agentLeaves = false;
    std::vector<std::thread> disconnections;
};

// Judges what has been recorded, after the end of the agent.
class Audit {
public:
    explicit Audit(const Record& run) : record(run) {}

    void checkSenders() const {
        for (const Record::Request& request : record.requests) {
            const Message& first = record.requests.front().message;
            requireEqual(kToken, request.message.parameter("accessToken"), "the token");
            requireEqual(first.parameter("agentUuid"), request.message.parameter("agentUuid"),
                         "one agent has one identity");
        }
        require(count("connect") == 1, "an agent announces itself once");
        require(count("disconnect") <= 1 + record.connectedSaid,
                "an agent disconnects once for each time that it was connected");
    }

    void checkOperations() const {
        for (const auto& [id, operation] : record.operations) {
            require(operation.calls <= 1, "an operation runs once");
            require(operation.ended == (operation.calls == 1), "an operation ends");
            checkEnd(id, operation);
            for (const char* type :
                 {"collector:feedback", "collector:stdout", "collector:stderr"}) {
                checkOutput(id, operation, type);
            }
        }
    }

    // Of a run in which nobody has failed to answer.
    void checkStop() const {
        require(count("disconnect") >= 1, "an agent that stops disconnects");
        for (const auto& [id, operation] : record.operations) {
            require(record.stopSaid || !operation.launchedByConnection || operation.calls == 1,
                    "what is asked for before a stop is run");
        }
    }

private:
    int count(const std::string& type) const {
        return static_cast<int>(
            std::count_if(record.requests.begin(), record.requests.end(),
                          [&](const auto& request) { return request.message.type == type; }));
    }

    std::vector<std::size_t> positions(const std::string& type, const std::string& id) const {
        std::vector<std::size_t> found;
        for (std::size_t index = 0; index < record.requests.size(); ++index) {
            const Message& message = record.requests[index].message;
            if (message.type == type && message.parameter("id") == id) {
                found.push_back(index);
            }
        }
        return found;
    }

    // One end. A second try, with an error, where the first one said that all went well and the
    // server's answer could not be had or read.
    void checkEnd(const std::string& id, const Record::Operation& operation) const {
        const auto ends = positions("collector:finish", id);
        if (operation.calls == 0) {
            require(ends.empty(), "what has not run does not end");
            return;
        }
        require(!ends.empty(), "every operation ends");
        const Record::Request& first = record.requests[ends.front()];
        const bool well = first.message.parameters.count("code") != 0;
        require(ends.size() == (well && first.failed ? 2U : 1U), "every operation ends once");
        require(hasEither(first.message), "an end has a code or an error");
        if (operation.threw) {
            requireEqual("failed", first.message.parameter("errorMessage"), "a failure's reason");
        }
        if (well) {
            requireEqual(operation.behaviour == '7' ? "-1" : "0", first.message.parameter("code"),
                         "an operation's code");
        }
        if (ends.size() == 2) {
            const Message& second = record.requests[ends.back()].message;
            require(hasEither(second) && second.parameters.count("errorMessage") == 1,
                    "the second try says what went wrong");
        }
    }

    static bool hasEither(const Message& end) {
        return end.parameters.count("code") + end.parameters.count("errorMessage") == 1;
    }

    void checkOutput(const std::string& id, const Record::Operation& operation,
                     const std::string& type) const {
        const auto outputs = positions(type, id);
        const auto ends = positions("collector:finish", id);
        std::string sent;
        for (const std::size_t output : outputs) {
            const Message& message = record.requests[output].message;
            const std::string text = kolvan::test::outputText(message);
            require(!text.empty(), "no message without output");
            requireEqual(std::to_string(text.size()), message.parameter("size"), "a size");
            sent += text;
        }
        require(operation.written.rfind(sent, 0) == 0, "output comes in its order, once");
        if (ends.empty()) {
            return;
        }
        const auto late = std::count_if(outputs.begin(), outputs.end(),
                                        [&](std::size_t output) { return output > ends.front(); });
        if (record.requests[ends.front()].message.parameters.count("code") != 0) {
            requireEqual(operation.written, sent, "all output is sent");
            require(late == 0, "output comes before the end");
        } else {
            require(late <= 1, "one delayed send may follow a failure");
        }
    }

    const Record& record;
};

// Nobody fails to answer, and the agent is not stopped before it knows that it is connected: such
// an agent stops in the end.
bool isPeaceful(const std::string& script) {
    const std::string first = script.substr(0, script.find('\n'));
    return letters(script, "!?").empty() && letters(first, "c") == "c" &&
           first.find_first_not_of("cdru~") == std::string::npos;
}

void run(const std::string& script) {
    const auto record = std::make_shared<Record>();
    const auto server = std::make_shared<Server>(record, script);
    cagnt1::AgentConfiguration configuration;
    configuration.accessToken = kToken;
    {
        cagnt1::Agent agent(configuration, server, std::make_shared<Operations>(record));
        server->setAgent(&agent);
        if (isPeaceful(script)) {
            agent.waitUntilStopped();
        } else {
            // Its connection may be over, which nobody can see.
            std::unique_lock lock(record->mutex);
            (void)record->changed.wait_for(lock, 10 * kWhile, [&] { return record->scriptEnded; });
        }
        server->joinDisconnections();
    }

    const Audit audit(*record);
    audit.checkSenders();
    audit.checkOperations();
    if (isPeaceful(script)) {
        audit.checkStop();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silenceStreams();
    run(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
