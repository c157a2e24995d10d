#include "tests/faults/FailureSweep.h"

#include "tests/endtoend/AgentScene.h"
#include "tests/support/FailingCall.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <optional>
#include <ostream>
#include <vector>

namespace kolvan::test {

namespace {

using testing::AnyOf;
using testing::IsEmpty;
using testing::MatchesRegex;

// The threads of an agent that waits for commands: main, interrupts, connection, replies and stops.
// The thread sanitizer has one of its own.
#ifdef __SANITIZE_THREAD__
constexpr std::size_t kIdleThreads = 6;
#else
constexpr std::size_t kIdleThreads = 5;
#endif

constexpr const char* kNotice = "Internal error occured: ";

/// A life with another build installed than the one that is asked for, so that everything that an
/// agent does is part of it.
class FailingLife {
public:
    FailingLife(const FailureKind& kind, std::uint64_t number)
        : failure(kind.call, kind.error, number) {
        AgentSettings settings;
        settings.serverEndpoint = scene.server().endpoint();
        settings.buildVersion = "2";
        scene.installation.configure(settings.text());
        scene.offer("package-x86.tar", {});
        scene.offer("package-x64.tar", {});
        scene.server().send(
            {messages::execute("run", "out hello err warning fb note exit 5"),
             messages::startCollection(
                 "collect",
                 "-r\nx\nout\nbegin\ntrace\ndata.0/a\none\ntrace\ndata.0/b\ntwo\nexit\n3",
                 "traces")});
        scene.server().send(messages::stop());
        AgentLaunch launch = scene.launch();
        failure.applyTo(launch);
        agent.emplace(launch);
    }

    /// Blocks until the agent has ended, or has lost its connection, whereupon it is terminated.
    std::string waitForEnd() {
        const bool over = lookUntil([this] { return !agent->isRunning() || isDisconnected(); });
        if (over && agent->isRunning()) {
            agent->sendSignal(SIGTERM);
        }
        return agent->waitForEnd();
    }

    AgentScene scene;
    const FailingCall failure;
    std::optional<AgentProcess> agent;

private:
    /// Whether the thread that asks for commands has ended, for a reason that it has printed, and
    /// all operations have. An agent that says goodbye, which its only failure may keep it from and
    /// is told of then, or whose start has failed, ends by itself.
    bool isDisconnected() {
        if (agent->threads().size() >= kIdleThreads) {
            return false;
        }
        const std::string errors = agent->errors();
        return !errors.empty() && errors.find(kNotice) == std::string::npos &&
               scene.server().count("disconnect") == 0 && scene.server().count("error") == 0;
    }
};

bool mayBreakRequests(const FailureKind& kind) {
    return kind.call == "socket" || kind.call == "poll" || kind.call == "dup";
}

void expectWholeOutput(FailingLife& life) {
    EXPECT_EQ("hello\n", life.scene.output("run"));
    EXPECT_EQ("warning\n", life.scene.errors("run"));
    EXPECT_EQ("note\n", life.scene.feedback("run"));
}

void expectOutcome(FailingLife& life, const FailureKind& kind, const std::string& id, int whole) {
    const auto operation = life.scene.server().operation(id);
    if (!operation || operation->results.empty()) {
        return;
    }
    const OperationResult& result = operation->results.front();
    const bool brokenPackage = life.agent->errors().find("Write failed") != std::string::npos;
    if (result.errorMessage) {
        EXPECT_NE("", *result.errorMessage);
    } else if (result.code == -1) {
        EXPECT_THAT(life.scene.errors(id), MatchesRegex("[^\n]*/kolvan-trcap: [^\n]+\n"));
    } else if (!brokenPackage) {
        EXPECT_EQ(whole, result.code);
        EXPECT_TRUE(mayBreakRequests(kind) ||
                    life.scene.output(id) == (id == "run" ? "hello\n" : "begin\n"));
        EXPECT_TRUE(mayBreakRequests(kind) ||
                    life.scene.errors(id) == (id == "run" ? "warning\n" : ""));
    }
}

bool hasFailedOperation(FailingLife& life) {
    for (const char* id : {"run", "collect"}) {
        const auto operation = life.scene.server().operation(id);
        for (const OperationResult& result :
             operation ? operation->results : std::vector<OperationResult>()) {
            if (result.errorMessage) {
                return true;
            }
        }
    }
    return false;
}

/// The only liberties that a failure gives: an operation that fails may be told of twice, and may
/// have a last output behind its end, and so may one whose request broke off on its way; an upload
/// whose file cannot be read breaks off; a server that accepts an agent whose start has failed
/// takes its "disconnect" back; and a "disconnect" whose answer is lost is an error.
bool isExcused(FailingLife& life, const FailureKind& kind, const std::string& ending,
               const std::string& problem) {
    const auto is = [&](const char* text) { return problem.find(text) != std::string::npos; };
    const bool isLate = is("after the operation's end") || is("arrived after its end");
    return (hasFailedOperation(life) && (isLate || is("the upload of"))) ||
           (mayBreakRequests(kind) && (isLate || is("error: after \"disconnect\""))) ||
           (ending == "exited with 1" && (is("after \"disconnect\"") || is("at the beginning")));
}

void expectOrderlyEnd(FailingLife& life, const FailureKind& kind) {
    const std::string ending = life.waitForEnd();
    EXPECT_THAT(ending, AnyOf("exited with 0", "exited with 1", "killed by signal 15"))
        << life.agent->errors();
    const bool startFailed = ending == "exited with 1";
    EXPECT_EQ(startFailed, life.agent->errors().find(kNotice) != std::string::npos);
    EXPECT_EQ(startFailed, life.agent->output().find("Aborting...") != std::string::npos);
    std::vector<std::string> problems = life.scene.problems();
    std::erase_if(problems, [&](const auto& text) { return isExcused(life, kind, ending, text); });
    EXPECT_THAT(problems, IsEmpty());
    expectOutcome(life, kind, "run", 5);
    expectOutcome(life, kind, "collect", 3);
}

}  // namespace

void sweep(const FailureKind& kind, std::uint64_t step) {
    for (std::uint64_t number = 1;; number += step) {
        SCOPED_TRACE(kind.call + " fails at call " + std::to_string(number));
        FailingLife life(kind, number);
        expectOrderlyEnd(life, kind);
        if (!life.failure.reached()) {
            EXPECT_EQ("", life.agent->errors());
            EXPECT_EQ("code 5", life.scene.outcome("run"));
            EXPECT_EQ("code 3", life.scene.outcome("collect"));
            expectWholeOutput(life);
            EXPECT_LT(1U, number);
            return;
        }
        if (testing::Test::HasFailure()) {
            return;
        }
    }
}

void PrintTo(const FailureKind& kind, std::ostream* stream) {
    *stream << kind.name;
}

}  // namespace kolvan::test
