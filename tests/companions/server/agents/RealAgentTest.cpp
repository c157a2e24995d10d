// The real agent against the rooms of the server, with a queue in memory.
#include "companions/server/agents/Bodies.h"
#include "companions/server/agents/HeldPolls.h"
#include "companions/server/protocol/AgentMessage.h"
#include "companions/server/protocol/UploadPath.h"
#include "tests/companions/server/support/ServerScene.h"
#include "tests/support/AgentProcess.h"
#include "tests/support/Certificates.h"
#include "tests/support/ScriptedCollector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kolvan::test {
namespace {

using server::agents::HeldPolls;
using server::agents::PollEnd;
using server::agents::readForm;
using server::agents::readMessage;
using server::http::Awaitable;
using server::http::jsonResponse;
using server::http::Request;
using server::http::Response;
using server::http::textResponse;
using server::protocol::AgentMessage;
using server::protocol::replyJson;
using server::protocol::safeUploadPath;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace messages = server::protocol::messages;

constexpr std::uint64_t kAnySize = std::uint64_t{1} << 40;

// What the server has heard. Threads: any.
class Records {
public:
    void add(const AgentMessage& message) {
        change([&] { heard.push_back(message); });
    }
    void addOutput(const AgentMessage& known, std::string_view bytes) {
        change([&] { outputs[known.type + ' ' + known.parameter("id")] += bytes; });
    }
    void addFile(const std::string& path, const std::string& content) {
        change([&] { files[path] = content; });
    }

    AgentMessage waitFor(const std::string& type) {
        std::unique_lock lock(mutex);
        AgentMessage found;
        const bool came = changed.wait_for(lock, std::chrono::seconds(120), [&] {
            for (const AgentMessage& message : heard) {
                found = message.type == type ? message : found;
            }
            return !found.type.empty();
        });
        EXPECT_TRUE(came) << type;
        return found;
    }

    std::string output(const std::string& type, const std::string& id) {
        const std::lock_guard lock(mutex);
        return outputs[type + ' ' + id];
    }

    std::map<std::string, std::string> uploads() {
        const std::lock_guard lock(mutex);
        return files;
    }

private:
    template <typename Change>
    void change(Change&& apply) {
        const std::lock_guard lock(mutex);
        apply();
        changed.notify_all();
    }

    std::mutex mutex;  // guards heard, outputs and files
    std::condition_variable changed;
    std::vector<AgentMessage> heard;
    std::map<std::string, std::string> outputs;
    std::map<std::string, std::string> files;
};

class Upload final : public server::protocol::FormListener {
public:
    explicit Upload(Records& target) : records(target) {}

    void beginPart(const std::string& name, const std::optional<std::string>& fileName) override {
        path = fileName ? safeUploadPath(name, *fileName) : std::nullopt;
        content.clear();
    }
    void data(std::string_view piece) override { content += piece; }
    void endPart() override {
        if (path) {
            records.addFile(*path, content);
        }
    }

private:
    Records& records;
    std::optional<std::string> path;
    std::string content;
};

class RealAgentScene : public ServerScene {
public:
    explicit RealAgentScene(bool secure = false) {
        if (secure) {
            const ServerIdentity identity = certificates.valid();
            settings.identity = std::make_shared<server::http::TlsIdentity>(
                identity.certificateFile, identity.keyFile);
        }
        network().call([this] { polls = std::make_unique<HeldPolls>(network().executor()); });
        router.add(
            "POST", "/api/collection-agent/message",
            [this](Request& request) { return handleMessage(request); }, kAnySize);
        router.add(
            "POST", "/api/collection-agent/trace/upload",
            [this](Request& request) { return handleUpload(request); }, kAnySize);
        start();
        installCollector();
        AgentSettings agent;
        agent.serverEndpoint =
            (secure ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(port());
        agent.buildVersion = "1";
        agent.serverCertificateName = secure ? "authority.pem" : "";
        (void)installation.surroundings().write("agent/authority.pem",
                                                readFile(certificates.authorityFile()));
        installation.configure(agent.text());
    }

    ~RealAgentScene() {
        network().call([this] { polls->stop(); });
        (void)stop();  // held polls have been let go
        network().call([this] { polls.reset(); });
    }

    AgentLaunch launch() const {
        AgentLaunch launch(installation);
        launch.environment["no_proxy"] = "*";
        return launch;
    }

    void send(const AgentMessage& command) {
        network().call([&] { queue.push_back(command); });
        polls->wakeFromAnywhere("agent");
    }

    std::string endOf(AgentProcess& agent) {
        send(messages::stop());
        return agent.waitForEnd();
    }

    const Certificates certificates;
    AgentInstallation installation;
    Records records;

private:
    void installCollector() const {
        const TemporaryDirectory staging;
        package::make(staging.entry("collector.tar"), {});
        package::unpack(staging.entry("collector.tar"), installation.target());
    }

    Awaitable<Response> handleMessage(Request& request) {
        const auto takeOutput = [this](const AgentMessage& known, std::string_view bytes) {
            records.addOutput(known, bytes);
        };
        AgentMessage message;
        const auto keep = [&message](AgentMessage whole) { message = std::move(whole); };
        co_await readMessage(request, threads(), takeOutput, keep);
        std::vector<AgentMessage> reply;
        if (message.type == "connect") {
            reply = {messages::connected()};
        } else if (message.type == "commands:get") {
            reply = co_await takeCommands(request);
        } else if (message.type == "disconnect") {
            polls->wakeFromAnywhere("agent");
        }
        records.add(message);
        co_return jsonResponse(replyJson(reply));
    }

    Awaitable<std::vector<AgentMessage>> takeCommands(Request& request) {
        const auto poll = polls->open("agent");
        request.onHangUp([&poll] { poll->end(PollEnd::Gone); });
        if (queue.empty() && co_await polls->wait(*poll) == PollEnd::Gone) {
            co_return std::vector<AgentMessage>();
        }
        co_return std::exchange(queue, {});
    }

    Awaitable<Response> handleUpload(Request& request) {
        Upload upload(records);
        co_await readForm(request, threads(), upload);
        co_return textResponse(200, "text/plain", "");
    }

    std::unique_ptr<HeldPolls> polls;
    std::vector<AgentMessage> queue;  // of the network thread
};

TEST(RealAgentTest, RunsTheCollectorAndReportsItsOutput) {
    RealAgentScene scene;
    AgentProcess agent(scene.launch());

    scene.send(messages::execute("1", "out hello"));
    const AgentMessage finish = scene.records.waitFor("collector:finish");

    EXPECT_EQ("1", finish.parameter("id"));
    EXPECT_EQ("0", finish.parameter("code"));
    EXPECT_EQ("hello", scene.records.output("collector:stdout", "1").substr(0, 5));
    EXPECT_EQ("exited with 0", scene.endOf(agent));
    EXPECT_EQ("", agent.errors());
}

TEST(RealAgentTest, FloodOfOutputArrivesWhole) {
    constexpr std::uint64_t kBytes = 20'000'000;
    RealAgentScene scene;
    AgentProcess agent(scene.launch());

    scene.send(messages::execute("1", "flood out " + std::to_string(kBytes)));
    (void)scene.records.waitFor("collector:finish");

    EXPECT_TRUE(floodText(kBytes) == scene.records.output("collector:stdout", "1"));
    EXPECT_EQ("exited with 0", scene.endOf(agent));
}

TEST(RealAgentTest, TracesOfACollectionAreUploaded) {
    RealAgentScene scene;
    AgentProcess agent(scene.launch());

    scene.send(
        messages::startCollection("1", "-r\nignored\ntrace\ndata.0/trace\nmeasured", "traces/c1"));
    (void)scene.records.waitFor("collector:finish");

    EXPECT_THAT(scene.records.uploads(), ElementsAre(Pair("traces/c1/data.0/trace", "measured")));
    EXPECT_EQ("exited with 0", scene.endOf(agent));
}

TEST(RealAgentTest, WorksOverTls) {
    RealAgentScene scene(/*secure=*/true);
    AgentProcess agent(scene.launch());

    scene.send(messages::execute("1", "out hello"));
    (void)scene.records.waitFor("collector:finish");

    EXPECT_EQ("exited with 0", scene.endOf(agent));
    EXPECT_EQ("", agent.errors());
}

TEST(RealAgentTest, AgentThatIsKilledLeavesNoPollBehind) {
    RealAgentScene scene;
    AgentProcess agent(scene.launch());
    (void)scene.records.waitFor("connect");

    agent.sendSignal(SIGKILL);

    EXPECT_EQ("killed by signal 9", agent.waitForEnd());
    EXPECT_TRUE(scene.waitForConnections(0));
}

}  // namespace
}  // namespace kolvan::test
