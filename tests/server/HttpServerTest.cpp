#include "server/HttpServer.h"

#include "tests/server/Transport.h"
#include "tests/support/Gate.h"
#include "tests/support/RawServer.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <fcntl.h>

namespace cagnt1 {

namespace {

using kolvan::test::answerWith;
using kolvan::test::bodyOf;
using kolvan::test::CapturedStream;
using kolvan::test::Gate;
using kolvan::test::headerOf;
using kolvan::test::headOf;
using kolvan::test::httpReply;
using kolvan::test::observe;
using kolvan::test::RawConnection;
using kolvan::test::RawServer;
using kolvan::test::readFile;
using kolvan::test::TemporaryDirectory;

const std::string kEveryByte = [] {
    std::string bytes;
    for (int value = 0; value < 256; ++value) {
        bytes += static_cast<char>(value);
    }
    return bytes;
}();

std::string onlyRequest(const RawServer& server) {
    const std::vector<std::string> requests = server.requests();
    EXPECT_EQ(1U, requests.size());
    return requests.empty() ? "" : requests.front();
}

std::string requestLineOf(const std::string& request) {
    return request.substr(0, request.find("\r\n"));
}

// Whether a program that this process starts gets the descriptor by which it has the file open:
// "yes", "no", or "no descriptor".
std::string inheritedDescriptorOf(const std::string& file) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code vanished;
        if (std::filesystem::read_symlink(entry.path(), vanished) == file) {
            const int descriptor = std::stoi(entry.path().filename());
            return (::fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0 ? "no" : "yes";
        }
    }
    return "no descriptor";
}

// A reply whose statuses the transport does not look at: with the body, and where it is a redirect
// with the address that is not asked.
std::string replyWithStatus(int status, const std::string& body) {
    return httpReply(status, body, "Location: /elsewhere\r\n");
}

constexpr int kStatuses[] = {200, 201, 301, 302, 307, 308, 400, 401, 403, 404, 407, 413, 500, 503};

class HttpServerTest : public kolvan::test::TransportTest {};

TEST_F(HttpServerTest, IsSharedThroughItsInterface) {
    RawServer server(answerWith(httpReply(200, "reply")));
    const std::shared_ptr<IServer> transport =
        std::make_shared<HttpServer>(server.endpoint(), std::string());

    const auto outcome = observe([&] { return transport->sendMessages("{}"); });

    EXPECT_EQ("reply", outcome.result);
}

TEST_F(HttpServerTest, BuildingItSendsAndPrintsNothing) {
    RawServer server(answerWith(httpReply(200, "")));

    const auto outcome = observe([&] {
        HttpServer transport(server.endpoint(), "");
        return true;
    });

    EXPECT_EQ("", outcome.out);
    EXPECT_EQ("", outcome.err);
    EXPECT_EQ(0U, server.acceptedConnections());
}

TEST_F(HttpServerTest, MessageIsPostedAsLibcurlPostsByDefault) {
    RawServer server(answerWith(httpReply(200, R"({"messages":[]})")));
    HttpServer transport(server.endpoint(), "");

    const auto outcome = observe([&] { return transport.sendMessages(R"({"a":"b"})"); });

    EXPECT_EQ(R"({"messages":[]})", outcome.result);
    EXPECT_EQ(
        "POST /api/collection-agent/message HTTP/1.1\r\n"
        "Host: " +
            server.host() +
            "\r\n"
            "Accept: */*\r\n"
            "Content-Length: 9\r\n"
            "Content-Type: application/x-www-form-urlencoded\r\n"
            "\r\n"
            R"({"a":"b"})",
        onlyRequest(server));
}

TEST_F(HttpServerTest, ExchangeIsTwoLinesOfOutput) {
    RawServer server(answerWith(httpReply(200, "the reply")));
    HttpServer transport(server.endpoint(), "");

    const auto outcome = observe([&] { return transport.sendMessages("the request"); });

    EXPECT_EQ("out: the request\nin:  the reply\n", outcome.out);
    EXPECT_EQ("", outcome.err);
}

TEST_F(HttpServerTest, EmptyRequestAndReplyAreExchangedAndShown) {
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");

    const auto outcome = observe([&] { return transport.sendMessages(""); });

    EXPECT_EQ("", outcome.result);
    EXPECT_EQ("out: \nin:  \n", outcome.out);
    EXPECT_EQ("0", headerOf(onlyRequest(server), "Content-Length"));
    EXPECT_EQ("", bodyOf(onlyRequest(server)));
}

TEST_F(HttpServerTest, OutputIsCurrentWhileTheReplyIsHeldAndAfterIt) {
    Gate requestSeen;
    Gate replyAllowed;
    RawServer server([&](RawConnection& connection) {
        (void)connection.readRequest();
        requestSeen.open();
        replyAllowed.wait();
        (void)connection.send(httpReply(200, "late"));
    });
    HttpServer transport(server.endpoint(), "");
    std::string held;
    std::string answered;
    {
        const CapturedStream out(1);
        auto reply = std::async(std::launch::async, [&] { return transport.sendMessages("{}"); });
        requestSeen.wait();
        // Past the buffers of this process: what somebody else would see now.
        held = readFile("/proc/self/fd/1");
        replyAllowed.open();
        reply.wait();
        answered = readFile("/proc/self/fd/1");
    }

    EXPECT_EQ("out: {}\n", held);
    EXPECT_EQ("out: {}\nin:  late\n", answered);
}

TEST_F(HttpServerTest, EndpointThatEndsInASlashDoublesIt) {
    TemporaryDirectory directory;
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint() + "/", "");

    (void)observe([&] { return transport.sendMessages("{}"); });
    (void)observe([&] { return transport.downloadTargetPackage("a", directory.entry("a")); });
    (void)observe([&] { return transport.uploadTraceFile(directory.write("t", "x"), "d"); });

    const auto requests = server.requests();
    ASSERT_EQ(3U, requests.size());
    EXPECT_EQ("POST //api/collection-agent/message HTTP/1.1", requestLineOf(requests[0]));
    EXPECT_EQ("GET //api/collection-agent/target-package?targetPackageArchiveName=a HTTP/1.1",
              requestLineOf(requests[1]));
    EXPECT_EQ("POST //api/collection-agent/trace/upload HTTP/1.1", requestLineOf(requests[2]));
}

TEST_F(HttpServerTest, EndpointMayCarryAPathPrefix) {
    TemporaryDirectory directory;
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint() + "/prefix/of", "");

    (void)observe([&] { return transport.sendMessages("{}"); });
    (void)observe([&] { return transport.downloadTargetPackage("a", directory.entry("a")); });
    (void)observe([&] { return transport.uploadTraceFile(directory.write("t", "x"), "d"); });

    const auto requests = server.requests();
    ASSERT_EQ(3U, requests.size());
    EXPECT_EQ("POST /prefix/of/api/collection-agent/message HTTP/1.1", requestLineOf(requests[0]));
    EXPECT_EQ(
        "GET /prefix/of/api/collection-agent/target-package?targetPackageArchiveName=a "
        "HTTP/1.1",
        requestLineOf(requests[1]));
    EXPECT_EQ("POST /prefix/of/api/collection-agent/trace/upload HTTP/1.1",
              requestLineOf(requests[2]));
}

TEST_F(HttpServerTest, MessageIsSentUpToItsFirstNulAndShownWhole) {
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");
    const std::string request("sent\0not sent", 13);

    const auto outcome = observe([&] { return transport.sendMessages(request); });

    EXPECT_EQ("sent", bodyOf(onlyRequest(server)));
    EXPECT_EQ("4", headerOf(onlyRequest(server), "Content-Length"));
    EXPECT_EQ("out: " + request + "\nin:  \n", outcome.out);
}

TEST_F(HttpServerTest, EveryOtherByteOfAMessageIsSentAsItIs) {
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");

    (void)observe([&] { return transport.sendMessages(kEveryByte.substr(1)); });

    EXPECT_EQ(kEveryByte.substr(1), bodyOf(onlyRequest(server)));
}

TEST_F(HttpServerTest, LongMessageIsSentAndShownWhole) {
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");
    const std::string request(5'000'000, 'm');

    const auto outcome = observe([&] { return transport.sendMessages(request); });

    EXPECT_TRUE(request == bodyOf(onlyRequest(server)));
    EXPECT_TRUE("out: " + request + "\nin:  \n" == outcome.out);
}

TEST_F(HttpServerTest, ReplyIsReturnedWhateverItsStatus) {
    for (const int status : kStatuses) {
        RawServer server(answerWith(replyWithStatus(status, "the body")));
        HttpServer transport(server.endpoint(), "");

        const auto outcome = observe([&] { return transport.sendMessages("{}"); });

        EXPECT_EQ("the body", outcome.result) << status;
        EXPECT_EQ("out: {}\nin:  the body\n", outcome.out) << status;
        EXPECT_EQ("", outcome.err) << status;
        EXPECT_EQ(1U, server.acceptedConnections()) << status;
    }
}

TEST_F(HttpServerTest, EveryByteOfAReplyIsReturnedAndShown) {
    RawServer server(answerWith(httpReply(200, kEveryByte)));
    HttpServer transport(server.endpoint(), "");

    const auto outcome = observe([&] { return transport.sendMessages("{}"); });

    EXPECT_EQ(kEveryByte, outcome.result);
    EXPECT_EQ("out: {}\nin:  " + kEveryByte + "\n", outcome.out);
}

TEST_F(HttpServerTest, ReplyInChunksIsPutTogether) {
    RawServer server(
        answerWith("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                   "3\r\none\r\n1;name=value\r\n \r\n3\r\ntwo\r\n0\r\nTrailer: x\r\n\r\n"));
    HttpServer transport(server.endpoint(), "");

    EXPECT_EQ("one two", observe([&] { return transport.sendMessages("{}"); }).result);
}

TEST_F(HttpServerTest, ReplyWithoutLengthLastsUntilTheConnectionEnds) {
    RawServer server([](RawConnection& connection) {
        (void)connection.readRequest();
        (void)connection.send("HTTP/1.1 200 OK\r\n\r\nto the ");
        (void)connection.send("end");
        connection.halfClose();
        connection.waitForPeerEnd();
    });
    HttpServer transport(server.endpoint(), "");

    EXPECT_EQ("to the end", observe([&] { return transport.sendMessages("{}"); }).result);
}

TEST_F(HttpServerTest, ReplyMayComeByteByByte) {
    const std::string body(500, 'b');
    RawServer server([&](RawConnection& connection) {
        (void)connection.readRequest();
        (void)connection.drip(httpReply(200, body));
    });
    HttpServer transport(server.endpoint(), "");

    EXPECT_EQ(body, observe([&] { return transport.sendMessages("{}"); }).result);
}

TEST_F(HttpServerTest, ReplyOfFiftyMegabytesIsReturnedWhole) {
    const std::string body(50'000'000, 'b');
    RawServer server(answerWith(httpReply(200, body)));
    HttpServer transport(server.endpoint(), "");

    const auto outcome = observe([&] { return transport.sendMessages("{}"); });

    EXPECT_TRUE(body == outcome.result);
}

TEST_F(HttpServerTest, EachRequestHasAConnectionOfItsOwnWhichEndsWithIt) {
    TemporaryDirectory directory;
    RawServer server([](RawConnection& connection) {
        (void)connection.readRequest();
        (void)connection.send(httpReply(200, "x", "Connection: keep-alive\r\n"));
        connection.waitForPeerEnd();
    });
    HttpServer transport(server.endpoint(), "");

    for (std::size_t round = 0; round < 3; ++round) {
        (void)observe([&] { return transport.sendMessages("{}"); });
        EXPECT_TRUE(server.waitForEndedConnections(3 * round + 1));
        (void)observe([&] { return transport.downloadTargetPackage("a", directory.entry("a")); });
        EXPECT_TRUE(server.waitForEndedConnections(3 * round + 2));
        (void)observe([&] { return transport.uploadTraceFile(directory.write("t", "x"), "d"); });
        EXPECT_TRUE(server.waitForEndedConnections(3 * round + 3));
    }

    EXPECT_EQ(9U, server.acceptedConnections());
    EXPECT_EQ(9U, server.requests().size());
}

TEST_F(HttpServerTest, RequestLeavesNothingOfItselfToTheNext) {
    RawServer server([](RawConnection& connection) {
        const std::string request = connection.readRequest();
        (void)connection.send(httpReply(200, bodyOf(request), "Set-Cookie: a=b\r\n"));
    });
    HttpServer transport(server.endpoint(), "");

    EXPECT_EQ("a long first one",
              observe([&] { return transport.sendMessages("a long first one"); }).result);
    EXPECT_EQ("2", observe([&] { return transport.sendMessages("2"); }).result);

    EXPECT_EQ("", headerOf(server.requests()[1], "Cookie"));
}

TEST_F(HttpServerTest, OneTransportOutlivesAnother) {
    RawServer server(answerWith(httpReply(200, "still there")));
    HttpServer transport(server.endpoint(), "");
    {
        HttpServer other(server.endpoint(), "");
        (void)observe([&] { return other.sendMessages("{}"); });
    }

    EXPECT_EQ("still there", observe([&] { return transport.sendMessages("{}"); }).result);
}

TEST_F(HttpServerTest, PackageIsAskedForWithAGet) {
    TemporaryDirectory directory;
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");

    (void)observe(
        [&] { return transport.downloadTargetPackage("x64.tar.gz", directory.entry("a")); });

    EXPECT_EQ(
        "GET /api/collection-agent/target-package?targetPackageArchiveName=x64.tar.gz "
        "HTTP/1.1\r\n"
        "Host: " +
            server.host() +
            "\r\n"
            "Accept: */*\r\n"
            "\r\n",
        onlyRequest(server));
}

TEST_F(HttpServerTest, PackageLandsInTheFile) {
    TemporaryDirectory directory;
    std::string archive;
    for (int i = 0; i < 5000; ++i) {
        archive += kEveryByte;
    }
    RawServer server(answerWith(httpReply(200, archive)));
    HttpServer transport(server.endpoint(), "");
    const std::string file = directory.entry("archive");

    const auto outcome = observe([&] { return transport.downloadTargetPackage("a", file); });

    EXPECT_EQ(true, outcome.result);
    EXPECT_TRUE(archive == readFile(file));
    EXPECT_EQ("Downloading target package\n", outcome.out);
    EXPECT_EQ("", outcome.err);
}

TEST_F(HttpServerTest, PackageReplacesTheFormerContentOfTheFile) {
    TemporaryDirectory directory;
    RawServer server(answerWith(httpReply(200, "new")));
    HttpServer transport(server.endpoint(), "");
    const std::string file = directory.write("archive", std::string(100'000, 'o'));

    (void)observe([&] { return transport.downloadTargetPackage("a", file); });

    EXPECT_EQ("new", readFile(file));
}

TEST_F(HttpServerTest, EmptyPackageIsAnEmptyFile) {
    TemporaryDirectory directory;
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");
    const std::string file = directory.entry("archive");

    const auto outcome = observe([&] { return transport.downloadTargetPackage("a", file); });

    EXPECT_EQ(true, outcome.result);
    EXPECT_EQ("", readFile(file));
}

TEST_F(HttpServerTest, BodyOfAnyStatusLandsInTheFile) {
    for (const int status : kStatuses) {
        TemporaryDirectory directory;
        RawServer server(answerWith(replyWithStatus(status, "<html>page</html>")));
        HttpServer transport(server.endpoint(), "");
        const std::string file = directory.entry("archive");

        const auto outcome = observe([&] { return transport.downloadTargetPackage("a", file); });

        EXPECT_EQ(true, outcome.result) << status;
        EXPECT_EQ("<html>page</html>", readFile(file)) << status;
        EXPECT_EQ("Downloading target package\n", outcome.out) << status;
        EXPECT_EQ("", outcome.err) << status;
        EXPECT_EQ(1U, server.acceptedConnections()) << status;
    }
}

TEST_F(HttpServerTest, NameOfTheArchiveIsNotEncoded) {
    const std::string name = "a&b=c+d%20e?f/../g;h,\"<>\\^`{|}~'()*!$@:[]";
    TemporaryDirectory directory;
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");

    (void)observe([&] { return transport.downloadTargetPackage(name, directory.entry("a")); });

    EXPECT_EQ(
        "GET /api/collection-agent/target-package?targetPackageArchiveName=" + name + " HTTP/1.1",
        requestLineOf(onlyRequest(server)));
}

TEST_F(HttpServerTest, NumberSignInTheNameEndsTheAddress) {
    TemporaryDirectory directory;
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");

    (void)observe([&] { return transport.downloadTargetPackage("a#b", directory.entry("a")); });

    EXPECT_EQ("GET /api/collection-agent/target-package?targetPackageArchiveName=a HTTP/1.1",
              requestLineOf(onlyRequest(server)));
}

TEST_F(HttpServerTest, ProgramsThatAreStartedDuringADownloadDoNotGetItsFile) {
    TemporaryDirectory directory;
    const std::string file = directory.entry("archive");
    std::string inherited = "no descriptor";
    RawServer server([&](RawConnection& connection) {
        (void)connection.readRequest();
        inherited = inheritedDescriptorOf(file);
        (void)connection.send(httpReply(200, "x"));
    });
    HttpServer transport(server.endpoint(), "");

    const auto outcome = observe([&] { return transport.downloadTargetPackage("a", file); });

    EXPECT_EQ(true, outcome.result);
    EXPECT_EQ("no", inherited);
}

TEST_F(HttpServerTest, FileThatCannotBeOpenedIsNoDownload) {
    TemporaryDirectory directory;
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");

    for (const std::string& file : {directory.entry("missing/archive"), directory.path().string(),
                                    directory.write("file", "") + "/archive", std::string()}) {
        const auto outcome = observe([&] { return transport.downloadTargetPackage("a", file); });

        EXPECT_EQ(false, outcome.result) << file;
        EXPECT_EQ("Downloading target package\n", outcome.out) << file;
        EXPECT_EQ("", outcome.err) << file;
    }
    EXPECT_EQ(0U, server.acceptedConnections());
}

// The body of a form whose only file is `content`.
std::string expectedForm(const std::string& boundary, const std::string& directory,
                         const std::string& fileName, const std::string& content) {
    return "--" + boundary + "\r\nContent-Disposition: form-data; name=\"" + directory +
           "\"; filename=\"" + fileName + "\"\r\nContent-Type: application/octet-stream\r\n\r\n" +
           content + "\r\n--" + boundary +
           "\r\nContent-Disposition: form-data; name=\"submit\"\r\n\r\nsend\r\n--" + boundary +
           "--\r\n";
}

std::string boundaryOf(const std::string& request) {
    const std::string type = headerOf(request, "Content-Type");
    const std::string prefix = "multipart/form-data; boundary=";
    EXPECT_EQ(prefix, type.substr(0, prefix.size()));
    return type.size() > prefix.size() ? type.substr(prefix.size()) : "";
}

TEST_F(HttpServerTest, TraceFileIsPostedAsAForm) {
    TemporaryDirectory directory;
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");
    const std::string file = directory.write("some/trace.bin", "the content");

    const auto outcome =
        observe([&] { return transport.uploadTraceFile(file, "uploads/data.0/sub"); });

    EXPECT_EQ(true, outcome.result);
    const std::string request = onlyRequest(server);
    const std::string boundary = boundaryOf(request);
    const std::string form =
        expectedForm(boundary, "uploads/data.0/sub", "trace.bin", "the content");
    EXPECT_EQ(
        "POST /api/collection-agent/trace/upload HTTP/1.1\r\n"
        "Host: " +
            server.host() +
            "\r\n"
            "Accept: */*\r\n"
            "Content-Length: " +
            std::to_string(form.size()) +
            "\r\n"
            "Content-Type: multipart/form-data; boundary=" +
            boundary +
            "\r\n"
            "\r\n" +
            form,
        request);
}

TEST_F(HttpServerTest, EveryByteOfATraceFileIsSent) {
    TemporaryDirectory directory;
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");
    std::string content;
    for (int i = 0; i < 20'000; ++i) {
        content += kEveryByte;
    }

    (void)observe([&] { return transport.uploadTraceFile(directory.write("t", content), "d"); });

    const std::string request = onlyRequest(server);
    EXPECT_TRUE(expectedForm(boundaryOf(request), "d", "t", content) == bodyOf(request));
}

TEST_F(HttpServerTest, EmptyTraceFileIsSentAsAnEmptyPart) {
    TemporaryDirectory directory;
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");

    (void)observe([&] { return transport.uploadTraceFile(directory.write("t", ""), "d"); });

    const std::string request = onlyRequest(server);
    EXPECT_EQ(expectedForm(boundaryOf(request), "d", "t", ""), bodyOf(request));
}

TEST_F(HttpServerTest, DirectoryAndFileNameAreSentAsTheCallerWritesThem) {
    const std::string name = "gr\xC3\xBC\xC3\x9F \xFF %20&;.trace";
    const std::string remote = "/abs/../data.0/with blank/\xC3\xA4\xFF%2F//end/";
    TemporaryDirectory directory;
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");

    (void)observe([&] { return transport.uploadTraceFile(directory.write(name, "x"), remote); });

    const std::string request = onlyRequest(server);
    EXPECT_EQ(expectedForm(boundaryOf(request), remote, name, "x"), bodyOf(request));
}

TEST_F(HttpServerTest, AnswerToAnUploadGoesToStandardOutputBehindItsLine) {
    TemporaryDirectory directory;
    RawServer server(answerWith(httpReply(200, "stored as 1")));
    HttpServer transport(server.endpoint(), "");
    const std::string file = directory.write("t", "x");

    const auto outcome = observe([&] { return transport.uploadTraceFile(file, "d"); });

    EXPECT_EQ(true, outcome.result);
    EXPECT_EQ("Uploading trace file\nstored as 1", outcome.out);
    EXPECT_EQ("", outcome.err);
}

TEST_F(HttpServerTest, OutputKeepsTheOrderOfEvents) {
    TemporaryDirectory directory;
    RawServer server(answerWith(httpReply(200, "answer")));
    HttpServer transport(server.endpoint(), "");
    const std::string file = directory.write("t", "x");

    const auto outcome = observe([&] {
        (void)transport.uploadTraceFile(file, "d");
        (void)transport.sendMessages("1");
        (void)transport.downloadTargetPackage("a", directory.entry("a"));
        (void)transport.uploadTraceFile(file, "d");
        return transport.sendMessages("2");
    });

    EXPECT_EQ(
        "Uploading trace file\nanswerout: 1\nin:  answer\nDownloading target package\n"
        "Uploading trace file\nanswerout: 2\nin:  answer\n",
        outcome.out);
}

TEST_F(HttpServerTest, UploadSucceedsWhateverTheStatus) {
    for (const int status : kStatuses) {
        TemporaryDirectory directory;
        RawServer server(answerWith(replyWithStatus(status, "page")));
        HttpServer transport(server.endpoint(), "");
        const std::string file = directory.write("t", "x");

        const auto outcome = observe([&] { return transport.uploadTraceFile(file, "d"); });

        EXPECT_EQ(true, outcome.result) << status;
        EXPECT_EQ("Uploading trace file\npage", outcome.out) << status;
        EXPECT_EQ("", outcome.err) << status;
        EXPECT_EQ(1U, server.acceptedConnections()) << status;
    }
}

TEST_F(HttpServerTest, AnswerToAnUploadMayBeTenMegabytes) {
    TemporaryDirectory directory;
    const std::string answer(10'000'000, 'a');
    RawServer server(answerWith(httpReply(200, answer)));
    HttpServer transport(server.endpoint(), "");
    const std::string file = directory.write("t", "x");

    const auto outcome = observe([&] { return transport.uploadTraceFile(file, "d"); });

    EXPECT_TRUE("Uploading trace file\n" + answer == outcome.out);
}

}  // namespace

}  // namespace cagnt1
