#pragma once

#include "server/IServer.h"
#include "server/Message.h"
#include "tests/support/Messages.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

namespace kolvan::test {

/// A server that keeps what it was asked and answers from a script, type by type.
///
/// A request takes the next answer queued for its type. With none queued, a type that is held
/// waits for one, and any other gets its standing answer: "connected" for "connect", an empty
/// reply for the rest. "commands:get" is held from the start, as a good server holds it.
///
/// `end()` lets nothing wait any more. It has to be called before an agent that talks to this
/// server is destroyed (AgentScene does), since the agent waits for its request in flight.
///
/// Threads: every member from any threads at once; answers run on the asking thread, unlocked.
class FakeServer : public cagnt1::IServer {
public:
    struct Request {
        std::string text;         ///< as it came
        cagnt1::Message message;  ///< the same, decoded
        std::thread::id thread;   ///< the asking thread
        pid_t kernelThread = 0;   ///< its number under /proc/self/task
    };
    /// Gives the reply text, or throws as a broken transport does.
    using Answer = std::function<std::string(const Request&)>;
    using Transfer = std::function<bool(const std::string&, const std::string&)>;

    FakeServer();

    /// Calls `end()`.
    ~FakeServer() override;

    /// Queues an answer for one request of the type.
    void answer(const std::string& type, Answer answer);
    void answer(const std::string& type, const Messages& reply);
    void answerText(const std::string& type, const std::string& replyText);

    /// Queues a transport failure with this description for one request of the type.
    void fail(const std::string& type, const std::string& description);

    /// Replaces the standing answer of the type, for as many requests as come.
    void answerEvery(const std::string& type, Answer answer);

    /// Lets requests of the type wait for queued answers, or no longer wait.
    void hold(const std::string& type);
    void release(const std::string& type);

    /// Holds nothing from now on; what is waiting gets its standing answer.
    void end();

    /// Blocks until the n-th request (from 1) of the type has come.
    /// @throws std::runtime_error when it does not come within the deadline
    Request waitForRequest(const std::string& type, std::size_t n = 1);

    /// Everything that was asked, or that of one type, in the order of arrival.
    std::vector<Request> requests();
    std::vector<Request> requests(const std::string& type);
    std::size_t count(const std::string& type);
    std::vector<std::string> types();

    /// Forgets what was asked, so that long runs need little memory.
    void forgetRequests();

    /// Decide the transfers, which succeed without doing anything where these are empty. To be set
    /// before anybody transfers.
    Transfer download;
    Transfer upload;

    std::string sendMessages(const std::string& requestJson) override;
    bool downloadTargetPackage(const std::string& archiveName,
                               const std::string& destinationPath) override;
    bool uploadTraceFile(const std::string& localFilePath,
                         const std::string& remoteDirectory) override;

private:
    Answer nextAnswer(std::unique_lock<std::mutex>& lock, const std::string& type);

    std::mutex mutex;  // guards received, receivedOfType, queued, standing, held and ended
    std::condition_variable changed;
    std::vector<Request> received;
    std::map<std::string, std::vector<std::size_t>> receivedOfType;  // positions in `received`
    std::map<std::string, std::deque<Answer>> queued;
    std::map<std::string, Answer> standing;
    std::set<std::string> held;
    bool ended = false;
};

}  // namespace kolvan::test
