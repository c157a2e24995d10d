#include "tests/endtoend/AgentScene.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/x509_vfy.h>

#include <csignal>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <unistd.h>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

using Commands = std::vector<AgentMessage>;

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += (text.empty() ? "" : "\n") + line;
    }
    return text;
}

/// Remote directory, file name and content of everything that has been uploaded.
std::vector<std::tuple<std::string, std::string, std::string>> uploadsOf(AgentScene& scene) {
    std::vector<std::tuple<std::string, std::string, std::string>> found;
    for (const UploadRecord& upload : scene.server().uploads()) {
        found.emplace_back(upload.remoteDirectory, upload.fileName, readFile(upload.storedPath));
    }
    return found;
}

/// Starts a collection that serves commands, and waits until it does.
void startServingCollection(AgentScene& scene, const std::string& id) {
    scene.server().send(messages::startCollection(
        id, joined({"-r", "ignored", "control", "trace", "data.0/trace", "measured"}), "traces"));
    ASSERT_TRUE(scene.server().waitForOutput(id, Channel::Feedback, "<ready/>"));
}

TEST(AgentRunTest, LifeFromConnectToDisconnect) {
    AgentScene scene;
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.server().waitForHeldPolls());

    EXPECT_EQ("exited with 0", scene.stop(agent));

    std::string hostName(1024, '\0');
    ASSERT_EQ(0, ::gethostname(hostName.data(), hostName.size()));
    hostName.resize(hostName.find('\0'));
    EXPECT_THAT(scene.messageTypes(), ElementsAre("connect", "disconnect"));
    EXPECT_EQ(hostName, scene.server().transcript().front().message.parameter("hostname"));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.resultDirectories(), IsEmpty());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentRunTest, EveryExchangeIsTwoLinesOfTheLog) {
    AgentScene scene;
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.server().waitForHeldPolls());

    EXPECT_EQ("exited with 0", scene.stop(agent));

    const std::string end = R"(,"messageParameters":{"accessToken":"secret-token","agentUuid":")" +
                            scene.server().transcript().front().message.parameter("agentUuid") +
                            "\"";
    std::vector<std::string> exchanges;
    std::vector<std::string> rest;
    std::istringstream log(agent.output());
    for (std::string line; std::getline(log, line);) {
        const bool exchange = line.starts_with("out: ") || line.starts_with("in:  ");
        (exchange ? exchanges : rest).push_back(line);
    }
    EXPECT_THAT(
        exchanges,
        ElementsAre(StartsWith(R"(out: {"messageType":"connect")" + end),
                    R"(in:  {"messages":[{"messageType":"connected","messageParameters":{}}]})",
                    R"(out: {"messageType":"commands:get")" + end + "}}",
                    R"(in:  {"messages":[{"messageType":"stop","messageParameters":{}}]})",
                    R"(out: {"messageType":"disconnect")" + end + "}}", R"(in:  {"messages":[]})"));
    EXPECT_THAT(
        rest,
        ElementsAre(
            StartsWith("kolvan-trcap is found at " + scene.installation.target().string() + "/"),
            StartsWith("Target package directory: " + scene.installation.target().string() + "/")));
}

TEST(AgentRunTest, LogIsCurrentWhileTheAgentRuns) {
    AgentScene scene;
    AgentProcess agent(scene.launch());

    EXPECT_TRUE(agent.waitForOutput("out: {\"messageType\":\"commands:get\","));

    EXPECT_EQ("exited with 0", scene.stop(agent));
}

TEST(AgentRunTest, ArgumentsAreSplitAtEveryBlank) {
    AgentScene scene;
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 0", scene.run(messages::execute("one", "out a out  out 'b\" describe")));

    EXPECT_THAT(scene.output("one"),
                HasSubstr("a\n\n'b\"\nargument: out\nargument: a\nargument: out\nargument: \n"
                          "argument: out\nargument: 'b\"\nargument: describe\n"
                          "argument: --ui-output-format\nargument: xml\n"
                          "argument: --ui-output-fd\nargument: 3\ndirectory: " +
                          (scene.installation.target() / "collector").string() + "\n"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentRunTest, MissingArgumentsAreOneEmptyArgument) {
    AgentScene scene;
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 64", scene.run({"collector:execute", {{"id", "one"}}}));

    EXPECT_EQ("scripted collector: unknown: ''\n", scene.errors("one"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentRunTest, RunThatWritesNothingSendsItsEndOnly) {
    AgentScene scene;
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 9", scene.run(messages::execute("one", "exit 9")));

    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.messageTypes(), ElementsAre("connect", "collector:finish", "disconnect"));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentRunTest, EveryChannelArrivesWholeInOrderAndBeforeTheEnd) {
    constexpr int kBytes = 3000001;
    const std::string bytes = std::to_string(kBytes);
    AgentScene scene;
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 0", scene.run(messages::execute("flood", "flood out " + bytes + " flood err " +
                                                                 bytes + " flood fb " + bytes)));

    const std::string expected = floodText(kBytes);
    EXPECT_TRUE(expected == scene.output("flood"));
    EXPECT_TRUE(expected == scene.errors("flood"));
    EXPECT_TRUE(expected == scene.feedback("flood"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentRunTest, ManySmallWritesArriveInFewMessages) {
    AgentScene scene;
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 0", scene.run(messages::execute("one", "lines out 5000 line")));

    EXPECT_EQ(numberedLines(5000, "line"), scene.output("one"));
    EXPECT_GT(2500U, scene.server().operation("one")->channel(Channel::Stdout).messages);
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentRunTest, OutputArrivesWhileTheRunGoesOn) {
    AgentScene scene;
    const auto leash = scene.makeLeash();
    AgentProcess agent(scene.launch());

    scene.server().send(messages::execute("one", "out early wait " + leash->path() + " out late"));

    EXPECT_TRUE(scene.server().waitForOutput("one", Channel::Stdout, "early\n"));
    EXPECT_EQ(0U, scene.server().count("collector:finish"));
    leash->release();
    EXPECT_EQ("code 0", scene.outcome("one"));
    EXPECT_EQ("early\nlate\n", scene.output("one"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentRunTest, BytesThatAreNoTextPassUnchanged) {
    AgentScene scene;
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 0", scene.run(messages::execute("one", "bytes out 00fffec0afed800a0d1b")));

    EXPECT_EQ(std::string("\x00\xff\xfe\xc0\xaf\xed\x80\x0a\x0d\x1b", 10), scene.output("one"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentRunTest, WholeCollectionWithOptionsOutputAndTraces) {
    AgentScene scene;
    AgentProcess agent(scene.launch());
    const std::string options = joined({"describe",
                                        "fb",
                                        "<begin/>",
                                        "-r",
                                        "/the/server's own",
                                        "out",
                                        " two  words ",
                                        "err",
                                        "a warning",
                                        "trace",
                                        "data.0/trace.json",
                                        "first",
                                        "trace",
                                        "data.0/sub dir/deep.json",
                                        "second",
                                        "trace",
                                        "elsewhere/left.json",
                                        "third",
                                        "exit",
                                        "3"});

    EXPECT_EQ("code 3", scene.run(messages::startCollection("run", options, "traces/run 1")));

    ASSERT_EQ(1U, scene.resultDirectories().size());
    const fs::path result = scene.resultDirectories().front();
    const fs::path optionFile = result / "config" / "trcap_remote.options";
    EXPECT_EQ(joined({"describe",
                      "fb",
                      "<begin/>",
                      "-r",
                      result.string(),
                      "out",
                      " two  words ",
                      "err",
                      "a warning",
                      "trace",
                      "data.0/trace.json",
                      "first",
                      "trace",
                      "data.0/sub dir/deep.json",
                      "second",
                      "trace",
                      "elsewhere/left.json",
                      "third",
                      "exit",
                      "3",
                      ""}),
              readFile(optionFile));
    EXPECT_THAT(scene.output("run"),
                testing::StartsWith("argument: --option-file\nargument: " + optionFile.string() +
                                    "\nargument: --ui-output-format\nargument: xml\n"
                                    "argument: --ui-output-fd\nargument: 3\ndirectory: " +
                                    (scene.installation.target() / "collector").string() + "\n"));
    EXPECT_THAT(scene.output("run"), testing::EndsWith("\n two  words \n"));
    EXPECT_EQ("a warning\n", scene.errors("run"));
    EXPECT_EQ("<begin/>\n", scene.feedback("run"));
    EXPECT_THAT(
        uploadsOf(scene),
        UnorderedElementsAre(std::tuple("traces/run 1/data.0", "trace.json", "first"),
                             std::tuple("traces/run 1/data.0/sub dir", "deep.json", "second")));
    EXPECT_THAT(agent.output(), HasSubstr("Uploading trace file\n"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentRunTest, ResultDirectoryHasAUniqueNameOfTheKnownForm) {
    AgentScene scene;
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 0", scene.run(messages::startCollection("one", "out\nx", "")));
    EXPECT_EQ("code 0", scene.run(messages::startCollection("two", "out\nx", "")));

    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ(2U, scene.resultDirectories().size());
    for (const fs::path& directory : scene.resultDirectories()) {
        EXPECT_THAT(directory.filename().string(),
                    testing::MatchesRegex("[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}"));
    }
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentRunTest, HundredTracesAllArrive) {
    AgentScene scene;
    AgentProcess agent(scene.launch());
    std::vector<std::string> options = {"-r", "ignored"};
    for (int i = 0; i < 100; ++i) {
        options.insert(options.end(),
                       {"trace", "data.0/" + std::to_string(i), "trace " + std::to_string(i)});
    }

    EXPECT_EQ("code 0", scene.run(messages::startCollection("run", joined(options), "t")));

    const auto uploads = uploadsOf(scene);
    EXPECT_EQ(100U, uploads.size());
    for (int i = 0; i < 100; ++i) {
        EXPECT_THAT(uploads, Contains(std::tuple("t/data.0", std::to_string(i),
                                                 "trace " + std::to_string(i))));
    }
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentRunTest, BrokenUploadIsTheOperationsError) {
    SceneSettings settings;
    settings.throughRelay = true;
    AgentScene scene(settings);
    scene.relay().treat([](const std::string& request) {
        return request.find("/trace/upload") == std::string::npos ? Treatment::Pass
                                                                  : Treatment::Reset;
    });
    AgentProcess agent(scene.launch());

    const std::string outcome = scene.run(
        messages::startCollection("run", joined({"-r", "x", "trace", "data.0/t", "x"}), "traces"));

    // The text of the result code: which of the two directions broke is up to the network.
    EXPECT_THAT(outcome, testing::AnyOf("error: Failure when receiving data from the peer",
                                        "error: Failed sending data to the peer"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ(outcome, "error: " + agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentRunTest, CommandReachesTheRunningCollection) {
    AgentScene scene;
    AgentProcess agent(scene.launch());
    startServingCollection(scene, "run");

    EXPECT_EQ("code 0", scene.run(messages::collectionCommand("status", "status")));

    EXPECT_EQ("passed: status\n", scene.output("status"));
    EXPECT_TRUE(scene.server().waitForOutput("run", Channel::Stdout, "command: status\n"));
    EXPECT_EQ("code 5", scene.run(messages::collectionCommand("failing", "exit-5")));
    EXPECT_EQ("code 0", scene.run(messages::collectionCommand("end", "stop")));
    EXPECT_EQ("code 0", scene.outcome("run"));
    EXPECT_EQ("command: status\ncommand: stop\n", scene.output("run"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(uploadsOf(scene), ElementsAre(std::tuple("traces/data.0", "trace", "measured")));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentRunTest, CancelEndsTheCollectionWhoseTracesStillArrive) {
    AgentScene scene;
    AgentProcess agent(scene.launch());
    startServingCollection(scene, "run");

    scene.server().send(messages::cancel());

    EXPECT_EQ("code 0", scene.outcome("run"));
    EXPECT_TRUE(scene.server().waitForMessage("collector:operations:cancelled"));
    EXPECT_EQ("command: cancel\n", scene.output("run"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(uploadsOf(scene), ElementsAre(std::tuple("traces/data.0", "trace", "measured")));
    // What the cancelling process printed went nowhere.
    EXPECT_THAT(agent.output(), testing::Not(HasSubstr("cGFzc2VkOiBjYW5jZWw")));
    EXPECT_EQ(1U, scene.server().count("collector:finish"));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentRunTest, CancelWithNothingToCancelIsAnswered) {
    AgentScene scene;
    AgentProcess agent(scene.launch());

    scene.server().send({messages::cancel(), messages::cancel()});

    EXPECT_TRUE(scene.server().waitForMessage("collector:operations:cancelled", 2));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentRunTest, SecondCollectionIsRefusedAndTheFirstUnaffected) {
    AgentScene scene;
    AgentProcess agent(scene.launch());
    startServingCollection(scene, "run");

    EXPECT_EQ("error: Collection is already running",
              scene.run(messages::startCollection("second", "out\nx", "traces")));

    EXPECT_EQ("code 0", scene.run(messages::collectionCommand("end", "stop")));
    EXPECT_EQ("code 0", scene.outcome("run"));
    EXPECT_EQ("", scene.output("second"));
    EXPECT_EQ("code 0", scene.run(messages::startCollection("third", "out\nx", "traces")));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentRunTest, CommandWithoutACollectionIsRefused) {
    AgentScene scene;
    AgentProcess agent(scene.launch());

    EXPECT_EQ("error: Collection is not running",
              scene.run(messages::collectionCommand("before", "status")));

    EXPECT_EQ("code 4", scene.run(messages::startCollection("run", "exit\n4", "")));
    EXPECT_EQ("error: Collection is not running",
              scene.run(messages::collectionCommand("after", "status")));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentRunTest, FiftyOperationsAtOnceMixNeitherOutputNorLog) {
    constexpr int kOperations = 50;
    AgentScene scene;
    const auto leash = scene.makeLeash();
    AgentProcess agent(scene.launch());
    Commands commands;
    for (int i = 0; i < kOperations; ++i) {
        const std::string id = "operation-" + std::to_string(i);
        commands.push_back(messages::execute(
            id,
            "fb started wait " + leash->path() + " lines out 50 " + id + " lines err 50 " + id));
    }

    scene.server().send(commands);

    for (int i = 0; i < kOperations; ++i) {
        EXPECT_TRUE(scene.server().waitForOutput("operation-" + std::to_string(i),
                                                 Channel::Feedback, "started\n"));
    }
    leash->release();
    for (int i = 0; i < kOperations; ++i) {
        const std::string id = "operation-" + std::to_string(i);
        EXPECT_EQ("code 0", scene.outcome(id));
        EXPECT_EQ(numberedLines(50, id), scene.output(id));
        EXPECT_EQ(numberedLines(50, id), scene.errors(id));
    }
    EXPECT_EQ("exited with 0", scene.stop(agent));
    std::istringstream log(agent.output());
    std::size_t requests = 0;
    std::size_t replies = 0;
    for (std::string line; std::getline(log, line);) {
        const bool request = line.starts_with("out: {\"messageType\":\"") && line.ends_with("\"}}");
        const bool reply = line.starts_with("in:  {\"messages\":[") && line.ends_with("]}");
        const bool alone = line.find("out: ", 1) == std::string::npos &&
                           line.find("in:  ", 1) == std::string::npos;
        requests += request ? 1U : 0U;
        replies += reply ? 1U : 0U;
        EXPECT_TRUE((request || reply || line.starts_with("kolvan-trcap is found at ") ||
                     line.starts_with("Target package directory: ")) &&
                    alone)
            << line;
    }
    EXPECT_EQ(scene.server().transcript().size(), requests);
    EXPECT_EQ(requests, replies);
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentRunTest, MessagesOfOneReplyAreHandledInOrderAndStrangersIgnored) {
    AgentScene scene;
    scene.server().answerWith([](const AgentMessage& message) -> std::optional<Commands> {
        if (message.type != "connect") {
            return std::nullopt;
        }
        return Commands{{"unheard-of", {{"a", "b"}}},
                        {"error", {{"errorMessage", "something"}}},
                        {"error", {}},
                        messages::connected(),
                        {"disconnected", {}},
                        messages::cancel(),
                        messages::execute("one", "out x")};
    });
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 0", scene.outcome("one"));

    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.messageTypes(),
                ElementsAre("connect", "collector:operations:cancelled", "collector:stdout",
                            "collector:finish", "disconnect"));
    EXPECT_EQ(1U, scene.server().count("collector:operations:cancelled"));
    EXPECT_EQ(0U, scene.server().count("error"));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentRunTest, OperationIdsAreUsedAsTheyCome) {
    const std::string id = "id with \"quotes\", \\ / \n and \x01";
    AgentScene scene;
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 0", scene.run(messages::execute(id, "out x")));

    EXPECT_EQ("x\n", scene.output(id));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

class AgentHttpsTest : public testing::Test {
protected:
    AgentHttpsTest() { makeCertificate(certificates.path()); }

    SceneSettings encrypted() const {
        SceneSettings settings;
        settings.server.certificateFile = certificates.path() / "certificate.pem";
        settings.server.keyFile = certificates.path() / "key.pem";
        return settings;
    }

    std::string certificate() const { return readFile(certificates.path() / "certificate.pem"); }

    TemporaryDirectory certificates;
};

TEST_F(AgentHttpsTest, ConfiguredCertificateIsReadFromTheInstallationDirectory) {
    SceneSettings settings = encrypted();
    settings.installed = false;
    settings.agent.serverCertificateName = "/certificates/server.pem";
    AgentScene scene(settings);
    scene.offer("package-x86.tar", {});
    scene.offer("package-x64.tar", {});
    scene.installation.surroundings().write("agent/certificates/server.pem", certificate());
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 0",
              scene.run(messages::startCollection(
                  "run", joined({"out", "x", "-r", "x", "trace", "data.0/t", "y"}), "traces")));

    EXPECT_EQ("https://", scene.server().endpoint().substr(0, 8));
    EXPECT_EQ("x\n", scene.output("run"));
    EXPECT_THAT(uploadsOf(scene), ElementsAre(std::tuple("traces/data.0", "t", "y")));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST_F(AgentHttpsTest, CertificateOfAnotherHostIsAcceptedOnceOneIsConfigured) {
    const TemporaryDirectory others;
    makeCertificate(others.path());
    SceneSettings settings = encrypted();
    settings.agent.serverCertificateName = "other.pem";
    AgentScene scene(settings);
    scene.installation.surroundings().write("agent/other.pem",
                                            readFile(others.path() / "certificate.pem"));
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.server().waitForHeldPolls());

    EXPECT_EQ("exited with 0", scene.stop(agent));

    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST_F(AgentHttpsTest, UnknownCertificateIsRefusedWithoutAConfiguredOne) {
    AgentScene scene(encrypted());
    AgentProcess agent(scene.launch());

    EXPECT_TRUE(
        agent.waitForErrors(X509_verify_cert_error_string(X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT)));

    EXPECT_TRUE(agent.isRunning());
    agent.sendSignal(SIGTERM);
    EXPECT_EQ("killed by signal 15", agent.waitForEnd());
    EXPECT_THAT(scene.messageTypes(), IsEmpty());
    EXPECT_THAT(agent.errors(), testing::EndsWith("certificate"));
}

TEST_F(AgentHttpsTest, NameOfACertificateThatIsNotThereTurnsTheVerificationOffAllTheSame) {
    SceneSettings settings = encrypted();
    settings.agent.serverCertificateName = "missing.pem";
    AgentScene scene(settings);
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.server().waitForHeldPolls());

    EXPECT_EQ("exited with 0", scene.stop(agent));

    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

}  // namespace
}  // namespace kolvan::test
