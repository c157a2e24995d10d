#include "agent/Agent.h"
#include "server/MessageJson.h"
#include "tests/agent/AgentWithFakes.h"
#include "tests/support/Messages.h"
#include "tests/support/ThreadShortage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <system_error>
#include <vector>

// An operation for which there is no thread. Whoever asked for it waits for its end, as of any
// other, and does not look for it among the errors.

namespace cagnt1 {
namespace {

using kolvan::test::AgentWithFakes;
using kolvan::test::collectionCommand;
using kolvan::test::execute;
using kolvan::test::FakeServer;
using kolvan::test::Messages;
using kolvan::test::serverError;
using kolvan::test::startCollection;
using kolvan::test::ThreadShortage;
using testing::ElementsAre;

std::string noThread() {
    return std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again))
        .what();
}

/// An agent that is asked for operations while there are no threads, and then for the operation
/// "last", which ends with 0, when there are some again.
class FailedLaunchTest : public testing::Test {
protected:
    void launch(Messages messages) {
        scene.operations->errorBody = [this](const std::string&) { shortage.end(); };
        scene.startPolling();
        messages.push_back(serverError("there are threads again"));
        messages.push_back(execute("last", "x"));
        scene.server->answer("commands:get", [this, messages](const FakeServer::Request&) {
            shortage.begin();
            return messagesToJson(messages);
        });
        // One of the messages is no operation.
        scene.server->waitForRequest("collector:finish", messages.size() - 1);
        scene.agent->disconnect();
        scene.awaitStopped();
    }

    /// The ends that an operation has been given, as texts.
    std::vector<std::string> endsOf(const std::string& id) {
        std::vector<std::string> texts;
        for (const FakeServer::Request& end : scene.server->requests("collector:finish")) {
            if (end.message.parameter("id") == id) {
                texts.push_back(
                    end.message.parameter("errorMessage", "code " + end.message.parameter("code")));
            }
        }
        return texts;
    }

    ThreadShortage shortage;
    AgentWithFakes scene;
};

TEST_F(FailedLaunchTest, EndsWithTheReasonAndTheErrorMessageStays) {
    launch({execute("run", "a")});

    EXPECT_THAT(endsOf("run"), ElementsAre(noThread()));
    EXPECT_THAT(endsOf("last"), ElementsAre("code 0"));
    EXPECT_EQ(1U, scene.server->count("error"));
    EXPECT_EQ(2U, scene.server->count("collector:finish"));
}

TEST_F(FailedLaunchTest, EndCarriesIdAndReasonAndNothingElse) {
    launch({execute("run", "a")});

    const auto ends = scene.server->requests("collector:finish");
    const auto end = std::find_if(ends.begin(), ends.end(), [](const FakeServer::Request& request) {
        return request.message.parameter("id") == "run";
    });
    ASSERT_NE(ends.end(), end);
    EXPECT_EQ(scene.withIdentity({{"id", "run"}, {"errorMessage", noThread()}}),
              end->message.parameters);
}

TEST_F(FailedLaunchTest, OperationsOfEveryKindEndOnceEach) {
    launch({execute("run", "a"), startCollection("collection", "-r\nx", ""),
            collectionCommand("command", "status")});

    EXPECT_THAT(endsOf("run"), ElementsAre(noThread()));
    EXPECT_THAT(endsOf("collection"), ElementsAre(noThread()));
    EXPECT_THAT(endsOf("command"), ElementsAre(noThread()));
    EXPECT_THAT(endsOf("last"), ElementsAre("code 0"));
    EXPECT_EQ(3U, scene.server->count("error"));
    EXPECT_EQ(4U, scene.server->count("collector:finish"));
    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "onError[there are threads again]", "execute[x]"));
}

}  // namespace
}  // namespace cagnt1
