#include "tests/support/standin/ProfilingServer.h"

#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace kolvan::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr const char* kMessagePath = "/api/collection-agent/message";
constexpr const char* kUploadPath = "/api/collection-agent/trace/upload";
constexpr const char* kFormType = "application/x-www-form-urlencoded";
constexpr const char* kEmptyAnswer = R"({"messages":[]})";

httplib::Client makeClient(const ProfilingServer& server) {
    httplib::Client client(server.endpoint());
    client.set_read_timeout(60);
    client.set_write_timeout(60);
    client.set_connection_timeout(60);
    client.enable_server_certificate_verification(false);
    return client;
}

std::string messageText(const std::string& type,
                        std::map<std::string, std::string> parameters = {}) {
    parameters.try_emplace("agentUuid", "agent-1");
    parameters.try_emplace("accessToken", "secret");
    // A batch of one, without what surrounds the message.
    const std::string batch = replyJson({{type, parameters}});
    const std::string begin = R"({"messages":[)";
    return batch.substr(begin.size(), batch.size() - begin.size() - 2);
}

/// Posts a body as the agent does and returns the answer's status and body, such as "200 text".
std::string post(const ProfilingServer& server, const std::string& body) {
    const auto result = makeClient(server).Post(kMessagePath, body, kFormType);
    if (!result) {
        return "no answer: " + to_string(result.error());
    }
    return std::to_string(result->status) + " " + result->body;
}

std::string say(const ProfilingServer& server, const std::string& type,
                std::map<std::string, std::string> parameters = {}) {
    return post(server, messageText(type, std::move(parameters)));
}

std::string ok(const std::vector<AgentMessage>& messages) {
    return "200 " + replyJson(messages);
}

std::future<std::string> pollLater(const ProfilingServer& server,
                                   const std::string& agent = "agent-1") {
    return std::async(std::launch::async, [&server, agent] {
        return say(server, "commands:get", {{"agentUuid", agent}});
    });
}

std::string upload(const ProfilingServer& server, const std::string& directory,
                   const std::string& fileName, const std::string& content) {
    const auto result = makeClient(server).Post(
        kUploadPath,
        httplib::MultipartFormDataItems{{directory, content, fileName, "application/octet-stream"},
                                        {"submit", "send", "", ""}});
    if (!result) {
        return "no answer: " + to_string(result.error());
    }
    return std::to_string(result->status) + " " + result->body;
}

std::vector<fs::path> filesBelow(const fs::path& directory) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        if (entry.symlink_status().type() != fs::file_type::directory) {
            files.push_back(entry.path());
        }
    }
    return files;
}

/// A connection on which a test writes whatever bytes it likes.
class RawClient {
public:
    explicit RawClient(int port) : socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        sockaddr generic{};
        static_assert(sizeof generic == sizeof address);
        std::memcpy(&generic, &address, sizeof address);
        if (connect(socket.get(), &generic, sizeof generic) != 0) {
            throw std::runtime_error("cannot connect");
        }
    }

    void write(std::string_view data) {
        while (!data.empty()) {
            const ssize_t sent = send(socket.get(), data.data(), data.size(), MSG_NOSIGNAL);
            if (sent < 0) {
                throw std::runtime_error("cannot send");
            }
            data.remove_prefix(static_cast<std::size_t>(sent));
        }
    }

    /// Reads until the server closes.
    std::string readAll() {
        std::string all;
        std::array<char, 4096> buffer{};
        for (ssize_t count = 1; count > 0;) {
            count = recv(socket.get(), buffer.data(), buffer.size(), 0);
            all.append(buffer.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
        }
        return all;
    }

private:
    basekit2::UniqueFd socket;
};

class ProfilingServerTest : public testing::Test {
protected:
    ServerSettings withDirectories() const {
        ServerSettings settings;
        settings.packageDirectory = directory.path() / "packages";
        settings.uploadDirectory = uploads;
        fs::create_directories(settings.packageDirectory);
        return settings;
    }

    TemporaryDirectory directory;
    const fs::path uploads = directory.path() / "uploads";
};

// ---------------------------------------------------------------------------------------------
// Messages

TEST_F(ProfilingServerTest, AnswersConnectWithConnected) {
    const ProfilingServer server;
    EXPECT_EQ(say(server, "connect"), ok({messages::connected()}));
}

TEST_F(ProfilingServerTest, LeavesConnectUnansweredWhenToldSo) {
    ServerSettings settings;
    settings.answerConnect = false;
    const ProfilingServer server(settings);
    EXPECT_EQ(say(server, "connect"), ok({}));
}

TEST_F(ProfilingServerTest, AnswersAnAddressWithADoubledSlash) {
    const ProfilingServer server;
    const auto result =
        makeClient(server).Post(std::string("/") + kMessagePath, messageText("connect"), kFormType);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->body, replyJson({messages::connected()}));
}

TEST_F(ProfilingServerTest, HoldsAPollUntilACommandIsQueued) {
    ProfilingServer server;
    auto poll = pollLater(server);
    ASSERT_TRUE(server.waitForHeldPolls());
    server.send(messages::execute("v1", "--version"));
    EXPECT_EQ(poll.get(), ok({messages::execute("v1", "--version")}));
}

TEST_F(ProfilingServerTest, HandsCommandsThatWaitToOnePollInTheirOrder) {
    ProfilingServer server;
    server.send(messages::cancel());
    server.send({messages::collectionCommand("k1", "status"), messages::stop()});
    EXPECT_EQ(
        say(server, "commands:get"),
        ok({messages::cancel(), messages::collectionCommand("k1", "status"), messages::stop()}));
}

TEST_F(ProfilingServerTest, AnswersAPollWithoutCommandsWhenItsTimeIsOver) {
    ServerSettings settings;
    settings.pollTimeout = milliseconds(1);
    const ProfilingServer server(settings);
    EXPECT_EQ(say(server, "commands:get"), ok({}));
}

TEST_F(ProfilingServerTest, ReleasesEveryHeldPollWhenItEnds) {
    constexpr std::size_t kPolls = 50;
    auto server = std::make_unique<ProfilingServer>();
    std::vector<std::future<std::string>> polls;
    for (std::size_t index = 0; index < kPolls; ++index) {
        polls.push_back(pollLater(*server));
    }
    ASSERT_TRUE(server->waitForHeldPolls(kPolls));
    server.reset();
    for (auto& poll : polls) {
        EXPECT_EQ(poll.get(), ok({}));
    }
}

TEST_F(ProfilingServerTest, ServesUploadsWhileHundredsOfPollsAreHeld) {
    constexpr std::size_t kPolls = 200;
    constexpr std::size_t kUploads = 100;
    ProfilingServer server(withDirectories());
    std::vector<std::future<std::string>> polls;
    for (std::size_t index = 0; index < kPolls; ++index) {
        polls.push_back(pollLater(server));
    }
    ASSERT_TRUE(server.waitForHeldPolls(kPolls));
    std::vector<std::future<std::string>> sent;
    for (std::size_t index = 0; index < kUploads; ++index) {
        sent.push_back(std::async(std::launch::async, [&server, index] {
            return upload(server, "traces", std::to_string(index), "content");
        }));
    }
    for (auto& one : sent) {
        EXPECT_EQ(one.get(), "200 ");
    }
    EXPECT_THAT(filesBelow(uploads), SizeIs(kUploads));
    server.releasePolls();
    for (auto& poll : polls) {
        EXPECT_EQ(poll.get(), ok({}));
    }
}

TEST_F(ProfilingServerTest, ReleasesThePollOfAnAgentThatDisconnects) {
    const ProfilingServer server;
    auto poll = pollLater(server);
    ASSERT_TRUE(server.waitForHeldPolls());
    EXPECT_EQ(say(server, "disconnect"), ok({}));
    EXPECT_EQ(poll.get(), ok({}));
}

TEST_F(ProfilingServerTest, ReleasesThePollThatArrivesAfterItsAgentsDisconnect) {
    ProfilingServer server;
    EXPECT_EQ(say(server, "disconnect"), ok({}));
    server.send(messages::stop());
    EXPECT_EQ(say(server, "commands:get"), ok({}));
    EXPECT_EQ(say(server, "commands:get"), ok({messages::stop()}));
}

TEST_F(ProfilingServerTest, KeepsThePollOfADisconnectedAgentWhenToldSo) {
    ServerSettings settings;
    settings.releasePollsOnDisconnect = false;
    ProfilingServer server(settings);
    auto poll = pollLater(server);
    ASSERT_TRUE(server.waitForHeldPolls());
    EXPECT_EQ(say(server, "disconnect"), ok({}));
    server.send(messages::cancel());
    EXPECT_EQ(poll.get(), ok({messages::cancel()}));
}

TEST_F(ProfilingServerTest, GivesNoCommandToAPollFromBeforeTheLastConnect) {
    ProfilingServer server;
    auto stale = pollLater(server, "agent-0");
    ASSERT_TRUE(server.waitForHeldPolls());
    EXPECT_EQ(say(server, "connect"), ok({messages::connected()}));
    EXPECT_EQ(stale.get(), ok({}));
    server.send(messages::stop());
    EXPECT_EQ(say(server, "commands:get"), ok({messages::stop()}));
}

TEST_F(ProfilingServerTest, RefusesAWrongTokenWithAnEmptyList) {
    ServerSettings settings;
    settings.accessToken = "right";
    const ProfilingServer server(settings);
    EXPECT_EQ(say(server, "connect", {{"accessToken", "wrong"}}),
              std::string("403 ") + kEmptyAnswer);
    EXPECT_EQ(say(server, "connect", {{"accessToken", "right"}}), ok({messages::connected()}));
    EXPECT_EQ(server.count("connect"), 1U);
    const Transcript transcript = server.transcript();
    ASSERT_THAT(transcript, SizeIs(2));
    EXPECT_FALSE(transcript[0].tokenAccepted);
    EXPECT_TRUE(transcript[1].tokenAccepted);
    EXPECT_THAT(server.protocolErrors(), ElementsAre("wrong access token in connect"));
}

TEST_F(ProfilingServerTest, AnswersWhatIsNoMessageWithAnEmptyList) {
    const std::vector<std::string> texts = {
        "", "nonsense", "{}", R"({"messageType":"connect"} trailing)", std::string(1000000, '['),
    };
    const ProfilingServer server;
    for (const std::string& text : texts) {
        EXPECT_EQ(post(server, text), std::string("400 ") + kEmptyAnswer) << text.substr(0, 50);
    }
    EXPECT_THAT(server.transcript(), IsEmpty());
    EXPECT_THAT(server.protocolErrors(), SizeIs(texts.size()));
}

TEST_F(ProfilingServerTest, TakesLongMessages) {
    const ProfilingServer server;
    std::string base64;
    std::string text;
    for (int group = 0; group < 1'000'000; ++group) {
        base64 += "YWJj";
        text += "abc";
    }
    EXPECT_EQ(say(server, "collector:stdout",
                  {{"id", "v1"}, {"size", std::to_string(text.size())}, {"message", base64}}),
              ok({}));
    EXPECT_TRUE(server.output("v1", Channel::Stdout) == text);
    EXPECT_EQ(server.transcript().at(0).outputSize, text.size());
}

TEST_F(ProfilingServerTest, LetsATestDecideTheAnswerToAnyMessage) {
    ProfilingServer server;
    server.answerWith([](const AgentMessage& message) {
        return message.type == "collector:finish" ? std::optional(std::vector{messages::stop()})
                                                  : std::nullopt;
    });
    EXPECT_EQ(say(server, "connect"), ok({messages::connected()}));
    EXPECT_EQ(say(server, "collector:finish", {{"id", "v1"}, {"code", "0"}}),
              ok({messages::stop()}));
    server.answerWith({});
    EXPECT_EQ(say(server, "collector:finish", {{"id", "v2"}, {"code", "0"}}), ok({}));
}

TEST_F(ProfilingServerTest, RecordsMessagesInTheOrderOfTheirArrival) {
    const ProfilingServer server;
    say(server, "connect", {{"hostname", "here"}});
    say(server, "error", {{"errorMessage", "line\nbreak and \x01"}});
    say(server, "disconnect");
    const Transcript transcript = server.transcript();
    ASSERT_THAT(transcript, SizeIs(3));
    EXPECT_EQ(transcript[0].message.type, "connect");
    EXPECT_EQ(transcript[0].message.parameter("hostname"), "here");
    EXPECT_EQ(transcript[1].message.parameter("errorMessage"), "line\nbreak and \x01");
    EXPECT_EQ(transcript[2].message.type, "disconnect");
    EXPECT_EQ(transcript[2].index, 2U);
}

TEST_F(ProfilingServerTest, WaitsUntilTheRecordsSatisfyACondition) {
    const ProfilingServer server;
    auto waiting = std::async(std::launch::async, [&server] {
        return server.waitUntil(
            [](const ServerRecords& records) { return records.transcript.size() == 2; });
    });
    say(server, "connect");
    say(server, "disconnect");
    EXPECT_TRUE(waiting.get());
    EXPECT_TRUE(server.waitForMessage("disconnect"));
    EXPECT_FALSE(server.waitForMessage("disconnect", 2, milliseconds(1)));
}

TEST_F(ProfilingServerTest, KeepsServersApart) {
    ProfilingServer first;
    ProfilingServer second;
    EXPECT_NE(first.endpoint(), second.endpoint());
    first.send(messages::stop());
    second.send(messages::cancel());
    EXPECT_EQ(say(second, "commands:get"), ok({messages::cancel()}));
    EXPECT_EQ(say(first, "commands:get"), ok({messages::stop()}));
}

TEST_F(ProfilingServerTest, RefusesAPortThatIsTaken) {
    const ProfilingServer first;
    ServerSettings settings;
    settings.port = first.port();
    EXPECT_THROW(ProfilingServer{settings}, std::runtime_error);
}

TEST_F(ProfilingServerTest, ListensOnTheSamePortAgainAfterItsEnd) {
    ServerSettings settings;
    {
        const ProfilingServer first;
        settings.port = first.port();
        say(first, "connect");
    }
    const ProfilingServer second(settings);
    EXPECT_EQ(second.endpoint(), "http://127.0.0.1:" + std::to_string(settings.port));
    EXPECT_EQ(say(second, "connect"), ok({messages::connected()}));
}

TEST_F(ProfilingServerTest, LeavesTheProcessSignalsAlone) {
    struct sigaction before {};
    sigaction(SIGPIPE, nullptr, &before);
    const ProfilingServer server;
    struct sigaction after {};
    sigaction(SIGPIPE, nullptr, &after);
    EXPECT_EQ(after.sa_handler, before.sa_handler);
}

// ---------------------------------------------------------------------------------------------
// Operations

TEST_F(ProfilingServerTest, DecodesOutputPerOperationAndChannel) {
    std::vector<std::string> seen;
    ServerSettings settings;
    settings.observer.onOutput = [&seen](const OutputChunk& chunk) {
        seen.push_back(chunk.id + " " + std::string(channelName(chunk.channel)) + " " + chunk.text);
    };
    const ProfilingServer server(settings);
    say(server, "collector:stdout", {{"id", "v1"}, {"size", "3"}, {"message", "YWJj"}});
    say(server, "collector:stdout", {{"id", "v1"}, {"size", "2"}, {"message", "ZGU="}});
    say(server, "collector:stderr", {{"id", "v1"}, {"size", "1"}, {"message", "Zg=="}});
    say(server, "collector:feedback", {{"id", "v2"}, {"size", "2"}, {"message", "/wA="}});
    EXPECT_TRUE(server.waitForOutput("v1", Channel::Stdout, "bcd"));
    EXPECT_FALSE(server.waitForOutput("v1", Channel::Stderr, "bcd", milliseconds(1)));
    EXPECT_EQ(server.output("v1", Channel::Stdout), "abcde");
    EXPECT_EQ(server.output("v1", Channel::Stderr), "f");
    EXPECT_EQ(server.output("v2", Channel::Feedback), std::string("\xFF\0", 2));
    EXPECT_EQ(server.output("v2", Channel::Stdout), "");
    EXPECT_EQ(server.operation("v1")->channel(Channel::Stdout).messages, 2U);
    EXPECT_EQ(server.operation("v1")->channel(Channel::Stdout).bytes, 5U);
    EXPECT_FALSE(server.operation("v3"));
    EXPECT_THAT(server.protocolErrors(), IsEmpty());
    EXPECT_THAT(seen, ElementsAre("v1 stdout abc", "v1 stdout de", "v1 stderr f",
                                  std::string("v2 feedback \xFF\0", 14)));
}

TEST_F(ProfilingServerTest, RefusesOutputThatIsDamaged) {
    const ProfilingServer server;
    const std::string refused = std::string("400 ") + kEmptyAnswer;
    EXPECT_EQ(say(server, "collector:stdout", {{"id", "v1"}, {"size", "4"}, {"message", "YWJj"}}),
              refused);
    EXPECT_EQ(say(server, "collector:stderr", {{"id", "v1"}, {"size", "3"}, {"message", "YW\nJ"}}),
              refused);
    EXPECT_THAT(server.protocolErrors(),
                ElementsAre(HasSubstr("not a message: Not as much output came as the message says"),
                            HasSubstr("not a message: This is no Base64")));
    EXPECT_THAT(server.transcript(), IsEmpty());
}

TEST_F(ProfilingServerTest, RecordsOutputThatIsMissingOrHasNoSize) {
    const ProfilingServer server;
    EXPECT_EQ(say(server, "collector:stdout", {{"id", "v1"}, {"size", "4"}}), ok({}));
    EXPECT_EQ(say(server, "collector:stderr", {{"id", "v1"}, {"message", "YWJj"}}), ok({}));
    EXPECT_THAT(server.protocolErrors(),
                ElementsAre("collector:stdout of 'v1': \"size\" is '4' but 0 bytes arrived",
                            "collector:stderr of 'v1': \"size\" is '' but 3 bytes arrived"));
}

TEST_F(ProfilingServerTest, RecordsOutputAfterAnOrderlyEndOnly) {
    const ProfilingServer server;
    const std::map<std::string, std::string> output = {{"size", "1"}, {"message", "Zg=="}};
    say(server, "collector:finish", {{"id", "failed"}, {"errorMessage", "why"}});
    auto late = output;
    late["id"] = "failed";
    say(server, "collector:stdout", late);
    EXPECT_THAT(server.protocolErrors(), IsEmpty());
    say(server, "collector:finish", {{"id", "ended"}, {"code", "0"}});
    late["id"] = "ended";
    say(server, "collector:stdout", late);
    EXPECT_THAT(server.protocolErrors(), ElementsAre("output of 'ended' arrived after its end"));
}

TEST_F(ProfilingServerTest, CountsOutputThatItDoesNotKeep) {
    ServerSettings settings;
    settings.keepOutput = false;
    const ProfilingServer server(settings);
    say(server, "collector:stdout", {{"id", "v1"}, {"size", "3"}, {"message", "YWJj"}});
    EXPECT_EQ(server.output("v1", Channel::Stdout), "");
    EXPECT_EQ(server.operation("v1")->channel(Channel::Stdout).bytes, 3U);
    EXPECT_EQ(server.transcript().at(0).outputSize, 3U);
}

TEST_F(ProfilingServerTest, WaitsForTheEndOfAnOperation) {
    ProfilingServer server;
    server.send(messages::execute("v1", ""));
    say(server, "commands:get");
    EXPECT_FALSE(server.waitForFinish("v1", milliseconds(1)));
    auto waiting = std::async(std::launch::async, [&server] { return server.waitForFinish("v1"); });
    say(server, "collector:finish", {{"id", "v1"}, {"code", "-1"}});
    const auto result = waiting.get();
    ASSERT_TRUE(result);
    EXPECT_EQ(result->code, -1);
    EXPECT_FALSE(result->errorMessage);
    say(server, "collector:finish", {{"id", "v1"}, {"errorMessage", "why"}});
    const auto second = server.waitForFinish("v1", ProfilingServer::kPatience, 2);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->errorMessage, "why");
    EXPECT_FALSE(second->code);
    EXPECT_EQ(server.operation("v1")->kind, "collector:execute");
    EXPECT_THAT(server.protocolErrors(), IsEmpty());
}

TEST_F(ProfilingServerTest, RecordsAnEndThatSaysNothingOrTooMuch) {
    const ProfilingServer server;
    say(server, "collector:finish", {{"id", "a"}});
    say(server, "collector:finish", {{"id", "b"}, {"code", "0"}, {"errorMessage", "x"}});
    say(server, "collector:finish", {{"id", "c"}, {"code", "zero"}});
    EXPECT_THAT(server.protocolErrors(),
                ElementsAre("end of 'a': exactly one of \"code\" and \"errorMessage\" is needed",
                            "end of 'b': exactly one of \"code\" and \"errorMessage\" is needed",
                            "end of 'c': \"code\" is 'zero'"));
}

// ---------------------------------------------------------------------------------------------
// Packages

std::string download(const ProfilingServer& server, const std::string& rawName) {
    httplib::Client client = makeClient(server);
    client.set_url_encode(false);
    const auto result =
        client.Get("/api/collection-agent/target-package?targetPackageArchiveName=" + rawName);
    if (!result) {
        return "no answer: " + to_string(result.error());
    }
    return std::to_string(result->status) + " " + result->body;
}

TEST_F(ProfilingServerTest, SendsPackages) {
    std::string content;
    for (unsigned index = 0; index < 1000000; ++index) {
        content.push_back(static_cast<char>(index * 7919U >> 5));
    }
    const ServerSettings settings = withDirectories();
    directory.write("packages/x64.tar.gz", content);
    directory.write("packages/a&b.zip", "ampersand");
    directory.write("packages/a+b.zip", "plus");
    directory.write("packages/a b.zip", "blank");
    directory.write("packages/a%20b.zip", "percent");
    directory.write("packages/empty", "");
    directory.write("packages/..c", "dots");
    const ProfilingServer server(settings);
    EXPECT_EQ(download(server, "x64.tar.gz"), "200 " + content);
    EXPECT_EQ(download(server, "a&b.zip"), "200 ampersand");
    EXPECT_EQ(download(server, "a+b.zip"), "200 plus");
    EXPECT_EQ(download(server, "a%20b.zip"), "200 percent");
    EXPECT_EQ(download(server, "a%26b.zip"), "200 ampersand");
    EXPECT_EQ(download(server, "empty"), "200 ");
    EXPECT_EQ(download(server, "..c"), "200 dots");
    fs::remove(settings.packageDirectory / "a%20b.zip");
    EXPECT_EQ(download(server, "a%20b.zip"), "200 blank");
    const auto requests = server.packageRequests();
    ASSERT_THAT(requests, SizeIs(8));
    EXPECT_EQ(requests[0].name, "x64.tar.gz");
    EXPECT_TRUE(requests[0].found);
}

TEST_F(ProfilingServerTest, RefusesWhatIsNoPlainNameInThePackageDirectory) {
    const ServerSettings settings = withDirectories();
    directory.write("secret", "secret");
    directory.write("packages/sub/inner", "inner");
    const ProfilingServer server(settings);
    const std::vector<std::string> names = {
        "",
        ".",
        "..",
        "../secret",
        "%2e%2e%2fsecret",
        "..%2Fsecret",
        directory.entry("secret"),
        "sub",
        "sub/inner",
        "sub%2Finner",
        "sub/../sub/inner",
        "unknown",
        "%00",
        std::string(5000, 'x'),
    };
    for (const std::string& name : names) {
        EXPECT_EQ(download(server, name), "404 There is no such package.\n") << name;
    }
    const auto requests = server.packageRequests();
    ASSERT_THAT(requests, SizeIs(names.size()));
    EXPECT_TRUE(std::none_of(requests.begin(), requests.end(),
                             [](const PackageRequest& request) { return request.found; }));
}

// ---------------------------------------------------------------------------------------------
// Uploads

TEST_F(ProfilingServerTest, StoresAnUploadWhereItsNamesSay) {
    const ProfilingServer server(withDirectories());
    EXPECT_EQ(upload(server, "traces/c1/data.0", "cpu.trace.json", "content"), "200 ");
    const fs::path stored = uploads / "traces/c1/data.0/cpu.trace.json";
    EXPECT_EQ(readFile(stored), "content");
    ASSERT_TRUE(server.waitForUploads(1));
    const UploadRecord record = server.uploads().at(0);
    EXPECT_EQ(record.remoteDirectory, "traces/c1/data.0");
    EXPECT_EQ(record.fileName, "cpu.trace.json");
    EXPECT_EQ(record.size, 7U);
    EXPECT_EQ(record.storedPath, stored);
    EXPECT_THAT(filesBelow(uploads), SizeIs(1));
}

TEST_F(ProfilingServerTest, ReplacesAFileThatIsUploadedAgain) {
    const ProfilingServer server(withDirectories());
    EXPECT_EQ(upload(server, "t", "f", "a longer first content"), "200 ");
    EXPECT_EQ(upload(server, "t", "f", "second"), "200 ");
    EXPECT_EQ(readFile(uploads / "t/f"), "second");
}

TEST_F(ProfilingServerTest, StoresNothingUnderANameThatLeadsElsewhere) {
    const ProfilingServer server(withDirectories());
    for (const char* const remoteDirectory : {"..", "a/../../b", "a\\b", ".hidden"}) {
        EXPECT_EQ(upload(server, remoteDirectory, "f", "content"),
                  "400 This name of a file cannot be trusted.\n")
            << remoteDirectory;
    }
    for (const char* const fileName : {"..", "../f", "/etc/passwd", ".incoming-1-0"}) {
        EXPECT_EQ(upload(server, "n", fileName, "content"),
                  "400 This name of a file cannot be trusted.\n")
            << fileName;
    }
    EXPECT_THAT(filesBelow(directory.path()), IsEmpty());
    EXPECT_THAT(server.uploads(), IsEmpty());
    EXPECT_THAT(server.protocolErrors(), SizeIs(8));
}

TEST_F(ProfilingServerTest, StoresAbsoluteDirectoriesBelowItsOwn) {
    const ProfilingServer server(withDirectories());
    EXPECT_EQ(upload(server, "/etc//it's/", "a b;c&d", "content"), "200 ");
    EXPECT_EQ(readFile(uploads / "etc/it's/a b;c&d"), "content");
    EXPECT_EQ(server.uploads().at(0).remoteDirectory, "/etc//it's/");
}

TEST_F(ProfilingServerTest, FollowsNoLinkInTheUploadDirectory) {
    const ProfilingServer server(withDirectories());
    fs::create_directories(directory.path() / "outside");
    const std::string target = directory.write("outside/target", "untouched");
    fs::create_directory_symlink(directory.path() / "outside", uploads / "link");
    fs::create_symlink(target, uploads / "file");
    EXPECT_THAT(upload(server, "link", "f", "content"), testing::StartsWith("400 "));
    EXPECT_EQ(upload(server, "", "file", "content"), "200 ");
    EXPECT_EQ(readFile(target), "untouched");
    EXPECT_FALSE(fs::is_symlink(uploads / "file"));
    EXPECT_EQ(readFile(uploads / "file"), "content");
    EXPECT_FALSE(fs::exists(directory.path() / "outside/f"));
    EXPECT_THAT(filesBelow(uploads),
                testing::UnorderedElementsAre(uploads / "link", uploads / "file"));
}

TEST_F(ProfilingServerTest, RefusesUploadsThatItCannotStore) {
    const ProfilingServer server(withDirectories());
    EXPECT_EQ(upload(server, "t", "f", "content"), "200 ");
    EXPECT_THAT(upload(server, "t/f", "g", std::string(3000000, 'x')), testing::StartsWith("400 "));
    EXPECT_THAT(upload(server, "", "t", "content"), testing::StartsWith("400 "));
    EXPECT_THAT(filesBelow(uploads), ElementsAre(uploads / "t/f"));
    EXPECT_THAT(server.uploads(), SizeIs(1));
    EXPECT_THAT(server.protocolErrors(), SizeIs(2));
}

TEST_F(ProfilingServerTest, RefusesUploadsWithoutAnUploadDirectory) {
    const ProfilingServer server;
    EXPECT_EQ(upload(server, "t", "f", std::string(3000000, 'x')),
              "400 This server keeps no uploads.\n");
}

TEST_F(ProfilingServerTest, RefusesAFormThatIsNotAnUpload) {
    const ProfilingServer server(withDirectories());
    const std::vector<httplib::MultipartFormDataItems> forms = {
        {{"t", "content", "f", ""}},
        {{"t", "content", "f", ""}, {"submit", "sent", "", ""}},
        {{"t", "content", "f", ""}, {"other", "send", "", ""}},
    };
    for (const auto& form : forms) {
        const auto result = makeClient(server).Post(kUploadPath, form);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->status, 400);
    }
    const auto plain = makeClient(server).Post(kUploadPath, "content", "text/plain");
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->body, "An upload must be a form.\n");
    EXPECT_THAT(filesBelow(uploads), IsEmpty());
    EXPECT_THAT(server.uploads(), IsEmpty());
}

/// Waits until the file that is arriving has the size; its name is the server's own affair.
bool waitForIncoming(const fs::path& uploads, std::uintmax_t size) {
    const auto deadline = std::chrono::steady_clock::now() + ProfilingServer::kPatience;
    while (std::chrono::steady_clock::now() < deadline) {
        for (const fs::path& file : filesBelow(uploads)) {
            if (fs::file_size(file) >= size) {
                return true;
            }
        }
        std::this_thread::yield();
    }
    return false;
}

TEST_F(ProfilingServerTest, WritesALargeUploadWhileItArrives) {
    constexpr std::size_t kPiece = 1 << 20;
    constexpr std::size_t kPieces = 50;
    const ProfilingServer server(withDirectories());
    bool arrivedEarly = false;
    const auto provide = [&](std::size_t offset, httplib::DataSink& sink) {
        const std::size_t index = offset / kPiece;
        if (index == kPieces / 2) {
            arrivedEarly = waitForIncoming(uploads, kPieces / 4 * kPiece);
        }
        if (index == kPieces) {
            sink.done();
            return true;
        }
        const std::string piece(kPiece, static_cast<char>('A' + index));
        return sink.write(piece.data(), piece.size());
    };
    httplib::MultipartFormDataProviderItems parts = {{"traces", provide, "big", ""}};
    // The client writes plain parts before provided ones, but the file has to come first.
    parts.push_back({"submit",
                     [](std::size_t offset, httplib::DataSink& sink) {
                         if (offset == 0) {
                             return sink.write("send", 4);
                         }
                         sink.done();
                         return true;
                     },
                     "", ""});
    const auto result = makeClient(server).Post(kUploadPath, {}, {}, parts);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 200) << result->body;
    EXPECT_TRUE(arrivedEarly);
    const std::string stored = readFile(uploads / "traces/big");
    ASSERT_EQ(stored.size(), kPieces * kPiece);
    for (std::size_t index = 0; index < kPieces; ++index) {
        const std::string piece(kPiece, static_cast<char>('A' + index));
        ASSERT_EQ(stored.compare(index * kPiece, kPiece, piece), 0) << index;
    }
    EXPECT_EQ(server.uploads().at(0).size, kPieces * kPiece);
}

TEST_F(ProfilingServerTest, LeavesNothingOfAnUploadThatIsCutOff) {
    const ProfilingServer server(withDirectories());
    {
        RawClient connection(server.port());
        connection.write(
            "POST /api/collection-agent/trace/upload HTTP/1.1\r\nHost: x\r\n"
            "Content-Length: 1000000\r\nContent-Type: multipart/form-data; boundary=B\r\n\r\n"
            "--B\r\nContent-Disposition: form-data; name=\"new/dir\"; filename=\"f\"\r\n\r\n" +
            std::string(100000, 'x'));
        ASSERT_TRUE(waitForIncoming(uploads, 50000));
    }
    ASSERT_TRUE(server.waitUntil(
        [](const ServerRecords& records) { return !records.protocolErrors.empty(); }));
    EXPECT_THAT(server.protocolErrors(), ElementsAre("the upload of 'f' was cut off"));
    EXPECT_TRUE(fs::is_empty(uploads));
    EXPECT_THAT(server.uploads(), IsEmpty());
}

TEST_F(ProfilingServerTest, KeepsSimultaneousUploadsOfOneNameWhole) {
    constexpr std::size_t kUploads = 20;
    const ProfilingServer server(withDirectories());
    std::vector<std::future<std::string>> sent;
    for (std::size_t index = 0; index < kUploads; ++index) {
        sent.push_back(std::async(std::launch::async, [&server, index] {
            const std::string content(300000 + index, static_cast<char>('a' + index));
            return upload(server, "t", "f", content);
        }));
    }
    for (auto& one : sent) {
        EXPECT_EQ(one.get(), "200 ");
    }
    EXPECT_THAT(server.uploads(), SizeIs(kUploads));
    EXPECT_THAT(filesBelow(uploads), ElementsAre(uploads / "t/f"));
    const std::string stored = readFile(uploads / "t/f");
    const auto winner = static_cast<std::size_t>(stored.at(0) - 'a');
    EXPECT_EQ(stored, std::string(300000 + winner, static_cast<char>('a' + winner)));
}

TEST_F(ProfilingServerTest, AnswersAClientThatWaitsForLeaveToSend) {
    const ProfilingServer server;
    const std::string body = messageText("connect");
    RawClient connection(server.port());
    connection.write(std::string("POST ") + kMessagePath +
                     " HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: " +
                     std::to_string(body.size()) + "\r\n\r\n" + body);
    const std::string answer = connection.readAll();
    EXPECT_THAT(answer, testing::StartsWith("HTTP/1.1 100 Continue\r\n"));
    EXPECT_THAT(answer, testing::EndsWith(replyJson({messages::connected()})));
}

// ---------------------------------------------------------------------------------------------
// HTTPS

class ProfilingServerHttpsTest : public ProfilingServerTest {
protected:
    void SetUp() override {
        const std::string command =
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 "
            "-subj /CN=localhost -keyout " +
            key + " -out " + certificate + " >" + directory.entry("log") + " 2>&1";
        ASSERT_EQ(std::system(command.c_str()), 0) << readFile(directory.entry("log"));
    }

    const std::string certificate = directory.entry("certificate.pem");
    const std::string key = directory.entry("key.pem");
};

TEST_F(ProfilingServerHttpsTest, SpeaksHttps) {
    ServerSettings settings = withDirectories();
    settings.certificateFile = certificate;
    settings.keyFile = key;
    directory.write("packages/p", "package");
    ProfilingServer server(settings);
    EXPECT_THAT(server.endpoint(), testing::StartsWith("https://127.0.0.1:"));
    auto poll = pollLater(server);
    ASSERT_TRUE(server.waitForHeldPolls());
    server.send(messages::stop());
    EXPECT_EQ(poll.get(), ok({messages::stop()}));
    EXPECT_EQ(download(server, "p"), "200 package");
    const std::string content(2000000, 'x');
    EXPECT_EQ(upload(server, "t", "f", content), "200 ");
    EXPECT_EQ(readFile(uploads / "t/f"), content);
}

TEST_F(ProfilingServerHttpsTest, RefusesACertificateThatCannotBeUsed) {
    ServerSettings settings;
    settings.certificateFile = directory.write("garbage.pem", "garbage");
    settings.keyFile = key;
    EXPECT_THROW(ProfilingServer{settings}, std::runtime_error);
    settings.certificateFile = certificate;
    settings.keyFile = directory.entry("missing.pem");
    EXPECT_THROW(ProfilingServer{settings}, std::runtime_error);
}

}  // namespace
}  // namespace kolvan::test
