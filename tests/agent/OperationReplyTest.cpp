#include "agent/Agent.h"
#include "basekit2/process/DescriptorBudget.h"
#include "server/MessageJson.h"
#include "tests/agent/AgentWithFakes.h"
#include "tests/support/CapturedStream.h"
#include "tests/support/Gate.h"
#include "tests/support/TakenPlaces.h"
#include "tests/support/ThreadShortage.h"
#include "tests/support/ThreadStates.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace cagnt1 {
namespace {

using kolvan::test::AgentWithFakes;
using kolvan::test::cancel;
using kolvan::test::CapturedStream;
using kolvan::test::connected;
using kolvan::test::disconnected;
using kolvan::test::execute;
using kolvan::test::FakeServer;
using kolvan::test::Gate;
using kolvan::test::isSleeping;
using kolvan::test::lookUntil;
using kolvan::test::Messages;
using kolvan::test::serverError;
using kolvan::test::stop;
using kolvan::test::takeAll;
using kolvan::test::ThreadShortage;
using testing::ElementsAre;

using OperationMessenger = IAgent::IOperations::OperationMessenger;

/// The message of an operation whose reply carries something.
enum class Carrier { Feedback, Stdout, Stderr, Finish, FinishWithError, Error };

void PrintTo(Carrier carrier, std::ostream* stream) {
    static const std::vector<std::string> names = {"Feedback", "Stdout",          "Stderr",
                                                   "Finish",   "FinishWithError", "Error"};
    *stream << names.at(static_cast<std::size_t>(carrier));
}

/// Plays the operation "1", "carrier", whose message of the given kind gets a reply.
class OperationReplyTest : public testing::TestWithParam<Carrier> {
protected:
    Gate maySend;    // opened with the next poll in flight, so that no stop cuts it off
    Gate mayHandle;  // opened where a test holds the handling
    Gate cancelled;  // opened by cancelOperations()
    bool failNextCancel = false;  // of the thread that handles replies
    AgentWithFakes scene;

    /// Makes the reply, and the operation that asks for it once `maySend` is open.
    void answerCarrier(const Messages& reply) {
        scene.server->answer(carrierType(), reply);
        if (GetParam() == Carrier::Error) {
            // An "error" is the agent's answer to a message that fails: here a cancel.
            failNextCancel = true;
            scene.server->answer("collector:stdout", {cancel()});
        }
        scene.operations->cancelBody = [this] {
            if (failNextCancel) {
                failNextCancel = false;
                throw std::runtime_error("no cancel");
            }
            cancelled.open();
        };
        scene.operations->bodies["carrier"] = [this](auto& messenger) {
            return perform(messenger);
        };
        scene.operations->bodies["until"] = [this](auto&) {
            cancelled.wait();
            return 0;
        };
    }

    std::string carrierType() const {
        switch (GetParam()) {
            case Carrier::Feedback:
                return "collector:feedback";
            case Carrier::Stdout:
                return "collector:stdout";
            case Carrier::Stderr:
                return "collector:stderr";
            case Carrier::Error:
                return "error";
            default:
                return "collector:finish";
        }
    }

    int perform(OperationMessenger& messenger) {
        maySend.wait();
        switch (GetParam()) {
            case Carrier::Feedback:
                messenger.onFeedback("text");
                break;
            case Carrier::Stderr:
                messenger.onStderr("text");
                break;
            case Carrier::Stdout:
            case Carrier::Error:
                messenger.onStdout("text");
                break;
            default:
                break;
        }
        if (GetParam() == Carrier::FinishWithError) {
            throw std::runtime_error("failed");
        }
        return 0;
    }

    void play() {
        scene.startPolling();
        scene.deliver({execute("1", "carrier")});
        maySend.open();
    }
};

TEST_P(OperationReplyTest, EveryMessageOfTheTableIsHandledInOrder) {
    answerCarrier({disconnected(),
                   serverError("a"),
                   {"no such type", {}},
                   {"error", {}},
                   connected(),
                   cancel(),
                   execute("2", "launched"),
                   serverError("b")});

    play();
    scene.operations->waitForCall("execute", 2);
    scene.operations->waitForCall("onError", 3);
    scene.server->waitForRequest("collector:finish", 2);

    std::vector<std::string> calls;
    for (const std::string& call : scene.operations->callTexts()) {
        if (call.rfind("execute", 0) != 0) {
            calls.push_back(call);
        }
    }
    if (GetParam() == Carrier::Error) {
        calls.erase(calls.begin() + 1);  // the cancel that has failed
    }
    EXPECT_THAT(
        calls, ElementsAre("onConnect", "onDisconnect", "onError[a]", "onError[Unspecified error.]",
                           "onConnect", "cancelOperations", "onError[b]"));
    EXPECT_EQ(1U, scene.server->count("collector:operations:cancelled"));
    EXPECT_EQ(0U, scene.server->count("disconnect"));
}

TEST_P(OperationReplyTest, StopLetsTheOperationFinishThenSaysDisconnectOnce) {
    answerCarrier({stop()});

    play();
    scene.awaitStopped();
    scene.destroyAgent();

    const std::vector<std::string> types = scene.server->types();
    EXPECT_EQ(1U, scene.server->count("disconnect"));
    EXPECT_EQ(1U, scene.server->count("collector:finish"));
    EXPECT_LT(std::find(types.begin(), types.end(), "collector:finish"),
              std::find(types.begin(), types.end(), "disconnect"));
}

TEST_P(OperationReplyTest, FurtherStopsChangeNothing) {
    answerCarrier({stop(), stop(), stop()});
    scene.server->answer("disconnect", {stop()});

    play();
    scene.awaitStopped();
    scene.agent->disconnect();
    scene.destroyAgent();

    EXPECT_EQ(1U, scene.server->count("disconnect"));
}

TEST_P(OperationReplyTest, LaunchAfterAStopInTheSameReplyIsDropped) {
    answerCarrier({stop(), execute("2", "late"), serverError("handled")});

    play();
    scene.awaitStopped();
    scene.destroyAgent();

    EXPECT_EQ(1U, scene.operations->calls("execute").size());
    EXPECT_EQ(1U, scene.operations->calls("onError").size());
    EXPECT_EQ(1U, scene.server->count("collector:finish"));
}

TEST_P(OperationReplyTest, CancelAfterAStopEndsTheOperationsThatTheStopWaitsFor) {
    answerCarrier({stop(), cancel()});
    scene.startPolling();

    scene.deliver({execute("2", "until"), execute("1", "carrier")});
    maySend.open();
    scene.awaitStopped();
    scene.destroyAgent();

    EXPECT_EQ(2U, scene.server->count("collector:finish"));
    EXPECT_EQ(1U, scene.server->count("collector:operations:cancelled"));
    EXPECT_EQ(1U, scene.server->count("disconnect"));
}

TEST_P(OperationReplyTest, ConnectedAfterAStopTakesItBackAndNothingHangs) {
    answerCarrier({stop(), connected(), serverError("handled")});

    play();
    scene.server->waitForRequest("disconnect");
    scene.operations->waitForCall("onError");
    scene.deliver({});
    scene.server->answer("commands:get", {stop()});
    scene.agent->waitUntilStopped();

    EXPECT_EQ(2U, scene.operations->calls("onConnect").size());
    EXPECT_EQ(2U, scene.server->count("disconnect"));
}

TEST_P(OperationReplyTest, HandlingDoesNotKeepTheOperationFromFinishing) {
    scene.operations->errorBody = [this](const std::string&) { mayHandle.wait(); };
    answerCarrier({serverError("slow")});

    play();
    scene.operations->waitForCall("onError");
    scene.server->waitForRequest("collector:finish");
    scene.deliver({execute("2", "another")});
    scene.server->waitForRequest("collector:finish", 2);

    mayHandle.open();
}

TEST_P(OperationReplyTest, RepliesAreHandledOnNoThreadThatAnOperationWaitsFor) {
    answerCarrier({serverError("text"), cancel()});

    play();
    const std::thread::id handlingThread = scene.operations->waitForCall("onError").thread;
    const FakeServer::Request answer =
        scene.server->waitForRequest("collector:operations:cancelled");
    scene.server->waitForRequest("collector:finish");

    EXPECT_EQ(handlingThread, answer.thread);
    EXPECT_NE(handlingThread, scene.operations->waitForCall("execute").thread);
    EXPECT_NE(handlingThread, scene.server->waitForRequest("commands:get").thread);
    for (const std::string type :
         {"collector:feedback", "collector:stdout", "collector:stderr", "collector:finish"}) {
        for (const FakeServer::Request& request : scene.server->requests(type)) {
            EXPECT_NE(handlingThread, request.thread) << type;
        }
    }
}

TEST_P(OperationReplyTest, FailuresOfTheHandlingAreReportedAndTheRestIsHandled) {
    scene.operations->disconnectBody = [] { throw std::runtime_error("no connection"); };
    answerCarrier({disconnected(), serverError("after")});

    play();
    EXPECT_THAT(scene.operations->waitForCall("onError").arguments, ElementsAre("after"));

    EXPECT_EQ("no connection",
              scene.server->requests("error").back().message.parameter("errorMessage"));
    scene.server->waitForRequest("collector:finish");
}

TEST_P(OperationReplyTest, StopUponDisconnectFromElsewhereChangesNothing) {
    answerCarrier({stop(), serverError("handled")});
    scene.startPolling();
    scene.deliver({execute("1", "carrier")});
    scene.operations->waitForCall("execute");

    kolvan::test::StopInProgress stopping(*scene.agent);
    maySend.open();
    stopping.wait();
    scene.awaitStopped();
    scene.destroyAgent();

    EXPECT_EQ(1U, scene.operations->calls("onError").size());
    EXPECT_EQ(1U, scene.server->count("disconnect"));
}

INSTANTIATE_TEST_SUITE_P(InReplyTo, OperationReplyTest,
                         testing::Values(Carrier::Feedback, Carrier::Stdout, Carrier::Stderr,
                                         Carrier::Finish, Carrier::FinishWithError, Carrier::Error),
                         testing::PrintToStringParamName());

/// Replies of an operation while a stop waits for it.
class ReplyDuringStopTest : public testing::TestWithParam<std::string> {
protected:
    Gate stopHasBegun;
    Gate cancelled;
    AgentWithFakes scene;

    /// Type of the operation's message: of a delayed send, or of the operation itself.
    std::string type() const { return GetParam(); }

    /// Starts an operation and a stop that waits for it, then lets the operation send its message.
    /// @param endsByCancel whether the operation then waits for a cancel
    void replyDuringStop(const Messages& reply, bool endsByCancel) {
        scene.operations->cancelBody = [this] { cancelled.open(); };
        scene.operations->bodies["until"] = [this](auto&) {
            cancelled.wait();
            return 0;
        };
        scene.operations->bodies["go"] = [this, endsByCancel](OperationMessenger& messenger) {
            stopHasBegun.wait();
            if (type() == "collector:stdout") {
                messenger.onStdout("text");
                if (endsByCancel) {
                    cancelled.wait();
                }
            }
            return 0;
        };
        scene.server->answer(type(), reply);
        scene.startPolling();
        scene.deliver({execute("1", "go")});
        if (endsByCancel && type() == "collector:finish") {
            scene.deliver({execute("2", "until")});
            scene.operations->waitForCall("execute", 2);
        }
        scene.operations->waitForCall("execute");
        kolvan::test::StopInProgress stopping(*scene.agent);
        stopHasBegun.open();
        stopping.wait();
    }
};

TEST_P(ReplyDuringStopTest, LaunchesAreDropped) {
    replyDuringStop({execute("9", "late"), kolvan::test::startCollection("9", "late", ""),
                     kolvan::test::collectionCommand("9", "late")},
                    false);
    scene.awaitStopped();
    scene.destroyAgent();

    EXPECT_THAT(scene.operations->callTexts(), ElementsAre("onConnect", "execute[go]"));
    EXPECT_EQ(1U, scene.server->count("collector:finish"));
    EXPECT_EQ(1U, scene.server->count("disconnect"));
}

TEST_P(ReplyDuringStopTest, CancelEndsTheOperationThatTheStopWaitsFor) {
    replyDuringStop({execute("9", "late"), cancel()}, true);
    scene.awaitStopped();
    scene.destroyAgent();

    EXPECT_EQ(1U, scene.operations->calls("cancelOperations").size());
    EXPECT_EQ(1U, scene.server->count("collector:operations:cancelled"));
    EXPECT_EQ(1U, scene.server->count("disconnect"));
}

TEST_P(ReplyDuringStopTest, EverythingElseIsHandledInOrder) {
    replyDuringStop({stop(), disconnected(), serverError("text"), {"no such type", {}}}, false);
    scene.awaitStopped();
    scene.destroyAgent();

    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "execute[go]", "onDisconnect", "onError[text]"));
    EXPECT_EQ(1U, scene.server->count("disconnect"));
}

TEST_P(ReplyDuringStopTest, ConnectedTakesTheStopBack) {
    replyDuringStop({connected(), serverError("handled")}, false);
    scene.operations->waitForCall("onError");
    scene.deliver({});
    scene.server->answer("commands:get", {stop()});
    scene.agent->waitUntilStopped();

    EXPECT_EQ(2U, scene.operations->calls("onConnect").size());
    EXPECT_EQ(2U, scene.server->count("disconnect"));
}

TEST_P(ReplyDuringStopTest, AFailureIsReported) {
    scene.operations->disconnectBody = [] { throw std::runtime_error("no connection"); };

    replyDuringStop({disconnected(), serverError("after")}, false);
    scene.awaitStopped();
    scene.destroyAgent();

    EXPECT_EQ(scene.withIdentity({{"errorMessage", "no connection"}}),
              scene.server->waitForRequest("error").message.parameters);
    EXPECT_EQ(1U, scene.operations->calls("onError").size());
}

INSTANTIATE_TEST_SUITE_P(OfDelayedSendAndOfOperation, ReplyDuringStopTest,
                         testing::Values("collector:stdout", "collector:finish"),
                         [](const testing::TestParamInfo<std::string>& type) {
                             return type.param.substr(std::string("collector:").size());
                         });

TEST(OperationMessagesTest, ThoseForWhichThereIsNoRoomWaitForTheirTurnAndTheConnectionGoesOn) {
    std::vector<basekit2::Places::Place> others =
        takeAll(basekit2::process::descriptor_budget().messages);
    std::promise<pid_t> operation;
    AgentWithFakes scene;
    scene.operations->bodies["go"] = [&](auto&) {
        operation.set_value(::gettid());
        return 0;
    };
    scene.startPolling();

    scene.deliver({execute("1", "go")});
    const pid_t thread = operation.get_future().get();
    const auto hasEnded = [&] { return scene.server->count("collector:finish") != 0; };
    lookUntil([&] { return isSleeping(thread) || hasEnded(); }, "an operation does not wait");
    scene.deliver({cancel()});

    EXPECT_EQ(1U, scene.server->count("collector:operations:cancelled"));
    EXPECT_FALSE(hasEnded());
    others.clear();
    EXPECT_NO_THROW((void)scene.server->waitForRequest("collector:finish"));
}

TEST(OperationRepliesOrderTest, RepliesAreHandledInTheOrderInWhichTheyCame) {
    AgentWithFakes scene;
    scene.server->answer("collector:stdout", {serverError("1"), serverError("2")});
    scene.server->answer("collector:feedback", {serverError("3")});
    scene.server->answer("collector:finish", {serverError("4")});
    scene.operations->bodies["go"] = [&](OperationMessenger& messenger) {
        messenger.onStdout("first");
        scene.operations->waitForCall("onError", 2);
        messenger.onFeedback("second");
        return 0;
    };
    scene.startPolling();

    scene.deliver({execute("1", "go")});
    scene.operations->waitForCall("onError", 4);

    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "execute[go]", "onError[1]", "onError[2]", "onError[3]",
                            "onError[4]"));
}

TEST(OperationRepliesOrderTest, AReplyWaitsForTheOneBeforeIt) {
    Gate mayHandle;
    AgentWithFakes scene;
    scene.operations->errorBody = [&](const std::string& text) {
        if (text == "1") {
            mayHandle.wait();
        }
    };
    scene.server->answer("collector:stdout", {serverError("1"), serverError("2")});
    scene.server->answer("collector:finish", {serverError("3")});
    scene.operations->bodies["go"] = [](OperationMessenger& messenger) {
        messenger.onStdout("text");
        return 0;
    };
    scene.startPolling();

    scene.deliver({execute("1", "go")});
    scene.server->waitForRequest("collector:finish");
    scene.operations->waitForCall("onError");
    EXPECT_EQ(1U, scene.operations->calls("onError").size());
    mayHandle.open();
    scene.operations->waitForCall("onError", 3);

    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "execute[go]", "onError[1]", "onError[2]", "onError[3]"));
}

TEST(OperationRepliesOrderTest, TheDestructorWaitsUntilEveryReplyIsHandled) {
    AgentWithFakes scene;
    scene.server->answer("collector:finish", {disconnected(), serverError("last")});
    scene.startPolling();
    scene.server->answer("commands:get", {execute("1", "go")});
    scene.server->waitForRequest("collector:finish");

    scene.agent->disconnect();
    scene.destroyAgent();

    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "execute[go]", "onDisconnect", "onError[last]"));
}

TEST(OperationRepliesOrderTest, AReplyWithoutTypeToOutputIsNotReported) {
    const CapturedStream standardError(STDERR_FILENO);
    AgentWithFakes scene;
    scene.server->answerText("collector:stdout", R"({"messages":[{"messageType":"stop"},{}]})");
    scene.operations->bodies["go"] = [](OperationMessenger& messenger) {
        messenger.onStdout("text");
        return 4;
    };
    scene.startPolling();

    scene.deliver({execute("1", "go")});

    EXPECT_EQ(scene.withIdentity({{"id", "1"}, {"code", "4"}}),
              scene.server->waitForRequest("collector:finish").message.parameters);
    scene.deliver({});
    EXPECT_EQ(0U, scene.server->count("disconnect"));
    scene.agent->disconnect();
    scene.awaitStopped();
    EXPECT_EQ("", standardError.text());
}

TEST(OperationRepliesOrderTest, AStopThatFindsNoThreadIsCarriedOutAllTheSame) {
    ThreadShortage shortage;
    Gate mayEnd;
    AgentWithFakes scene;
    scene.operations->bodies["go"] = [&](OperationMessenger&) {
        mayEnd.wait();
        return 0;
    };
    scene.server->answer("collector:finish", [&](const FakeServer::Request&) {
        shortage.begin();
        return messagesToJson({stop()});
    });
    scene.server->answer("disconnect", [&](const FakeServer::Request&) {
        shortage.end();
        return std::string();
    });
    scene.startPolling();

    scene.deliver({execute("1", "go")});
    mayEnd.open();
    scene.awaitStopped();

    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "commands:get", "commands:get",
                                                   "collector:finish", "disconnect"));
}

TEST(OperationRepliesOrderTest, StopsFromAllSidesDoNotHang) {
    for (int i = 0; i < 200; ++i) {
        AgentWithFakes scene;
        scene.operations->cancelBody = [] {};
        scene.server->answerEvery("collector:finish", [](const FakeServer::Request&) {
            return messagesToJson({execute("1", "go"), cancel(), disconnected(), stop()});
        });
        scene.startPolling();

        scene.server->answer("commands:get", Messages(3, execute("1", "go")));
        scene.operations->waitForCall("execute");
        scene.agent->disconnect();
        scene.awaitStopped();
        scene.destroyAgent();

        ASSERT_EQ(1U, scene.server->count("disconnect"));
        ASSERT_EQ(scene.operations->calls("execute").size(),
                  scene.server->count("collector:finish"));
    }
}

TEST(OperationRepliesOrderTest, StopInTheRepliesOfManyOperationsSaysDisconnectOnce) {
    constexpr std::size_t kOperations = 30;
    AgentWithFakes scene;
    const auto replyStop = [](const FakeServer::Request&) { return messagesToJson({stop()}); };
    scene.server->answerEvery("collector:finish", replyStop);
    scene.server->answerEvery("collector:stdout", replyStop);
    scene.operations->bodies["go"] = [&](OperationMessenger& messenger) {
        scene.operations->waitForCall("execute", kOperations);
        messenger.onStdout("text");
        return 0;
    };
    scene.startPolling();

    scene.server->answer("commands:get", Messages(kOperations, execute("1", "go")));
    scene.awaitStopped();
    scene.destroyAgent();

    EXPECT_EQ(kOperations, scene.server->count("collector:finish"));
    EXPECT_EQ(1U, scene.server->count("disconnect"));
}

}  // namespace
}  // namespace cagnt1
