#include "server/HttpServer.h"

#include "basekit2/UniqueFd.h"
#include "tests/server/Transport.h"
#include "tests/support/Gate.h"
#include "tests/support/PlainTransfer.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/RawServer.h"
#include "tests/support/TemporaryDirectory.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <iostream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cagnt1 {

namespace {

using kolvan::test::answerWith;
using kolvan::test::expectFailure;
using kolvan::test::failInDetail;
using kolvan::test::failPlainly;
using kolvan::test::httpReply;
using kolvan::test::kDeadline;
using kolvan::test::observe;
using kolvan::test::openDescriptors;
using kolvan::test::PlainFailure;
using kolvan::test::RawConnection;
using kolvan::test::RawServer;
using kolvan::test::readFile;
using kolvan::test::RefusingPort;
using kolvan::test::runWithPrivateMounts;
using kolvan::test::TemporaryDirectory;
using kolvan::test::withoutNumbers;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// How a server breaks a transfer off.
struct TransportFault {
    const char* name;
    RawServer::Script script;
    std::string received;  // part of the body that had arrived
};

// What libcurl says about it: the description about messages and downloads, the code about uploads.
PlainFailure reportOf(const TransportFault& fault) {
    const RawServer server(fault.script);
    return failInDetail(server.endpoint());
}

RawServer::Script resetting(const std::string& bytes) {
    return [bytes](RawConnection& connection) {
        (void)connection.readRequest();
        (void)connection.send(bytes);
        connection.resetAtEnd();
    };
}

std::vector<TransportFault> faults() {
    const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    return {
        {"no reply", answerWith(""), ""},
        {"reset", resetting(""), ""},
        {"body shorter than announced",
         answerWith("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nabc"), "abc"},
        {"head only", answerWith("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n"), ""},
        {"chunks that end early", answerWith(chunked + "3\r\nabc\r\n"), "abc"},
        {"broken chunk", answerWith(chunked + "3\r\nabc\r\nxyz\r\n"), "abc"},
        {"other protocol", answerWith("SSH-2.0-server\r\n"), ""},
    };
}

// What libcurl says, but for its numbers, about a reply that nobody takes.
std::string reportOfALostReply() {
    const RawServer server(answerWith(httpReply(200, "reply")));
    return withoutNumbers(failInDetail(server.endpoint(), {.takesReply = false}).description);
}

class HttpServerFaultTest : public kolvan::test::TransportTest {
protected:
    TemporaryDirectory directory;
};

TEST_F(HttpServerFaultTest, BrokenMessageExchangeIsDescribedByTheErrorBuffer) {
    for (const TransportFault& fault : faults()) {
        SCOPED_TRACE(fault.name);
        RawServer server(fault.script);
        HttpServer transport(server.endpoint(), "");

        const auto outcome = observe([&] { return transport.sendMessages("{}"); });

        expectFailure(reportOf(fault).description, outcome);
        EXPECT_EQ("out: {}\n", outcome.out);
        EXPECT_EQ(1U, server.acceptedConnections());
    }
}

TEST_F(HttpServerFaultTest, BrokenDownloadIsDescribedByTheErrorBufferAndLeavesWhatArrived) {
    for (const TransportFault& fault : faults()) {
        SCOPED_TRACE(fault.name);
        RawServer server(fault.script);
        HttpServer transport(server.endpoint(), "");
        const std::string file = directory.write("archive", "former");

        const auto outcome = observe([&] { return transport.downloadTargetPackage("a", file); });

        expectFailure(reportOf(fault).description, outcome);
        EXPECT_EQ("Downloading target package\n", outcome.out);
        EXPECT_EQ(fault.received, readFile(file));
    }
}

TEST_F(HttpServerFaultTest, BrokenUploadIsDescribedByTheResultCode) {
    const std::string file = directory.write("t", "x");
    for (const TransportFault& fault : faults()) {
        SCOPED_TRACE(fault.name);
        RawServer server(fault.script);
        HttpServer transport(server.endpoint(), "");

        const auto outcome = observe([&] { return transport.uploadTraceFile(file, "d"); });

        expectFailure(curl_easy_strerror(reportOf(fault).code), outcome);
        EXPECT_EQ("Uploading trace file\n" + fault.received, outcome.out);
    }
}

TEST_F(HttpServerFaultTest, RefusedMessageIsShownButHasNoReplyLine) {
    const RefusingPort port;
    HttpServer transport("http://" + port.host(), "");

    const auto outcome = observe([&] { return transport.sendMessages("{}"); });

    expectFailure(outcome.error.value_or("no error"), outcome);
    EXPECT_EQ("out: {}\n", outcome.out);
    EXPECT_EQ(withoutNumbers(failInDetail("http://" + port.host()).description),
              withoutNumbers(outcome.err));
    EXPECT_NE('\n', outcome.err.back());
}

TEST_F(HttpServerFaultTest, RefusedDownloadLeavesAnEmptyFile) {
    const RefusingPort port;
    HttpServer transport("http://" + port.host(), "");
    const std::string file = directory.write("archive", "former");

    const auto outcome = observe([&] { return transport.downloadTargetPackage("a", file); });

    expectFailure(outcome.error.value_or("no error"), outcome);
    EXPECT_EQ("Downloading target package\n", outcome.out);
    EXPECT_EQ(withoutNumbers(failInDetail("http://" + port.host()).description),
              withoutNumbers(outcome.err));
    EXPECT_EQ("", readFile(file));
}

TEST_F(HttpServerFaultTest, RefusedUploadIsDescribedByTheResultCode) {
    const RefusingPort port;
    HttpServer transport("http://" + port.host(), "");
    const std::string file = directory.write("t", "x");

    const auto outcome = observe([&] { return transport.uploadTraceFile(file, "d"); });

    expectFailure(curl_easy_strerror(CURLE_COULDNT_CONNECT), outcome);
    EXPECT_EQ("Uploading trace file\n", outcome.out);
}

TEST_F(HttpServerFaultTest, MalformedAddressIsDescribedAsFarAsLibcurlDescribesIt) {
    const std::string file = directory.write("t", "x");
    for (const char* const endpoint : {"", "http://127.0.0.1:99999"}) {
        SCOPED_TRACE(endpoint);
        HttpServer transport(endpoint, "");
        // Older versions of libcurl leave the error buffer empty here.
        const PlainFailure plain = failPlainly(endpoint + std::string("/path"));

        const auto message = observe([&] { return transport.sendMessages("{}"); });
        const auto download = observe([&] { return transport.downloadTargetPackage("a", file); });
        const auto upload = observe([&] { return transport.uploadTraceFile(file, "d"); });

        EXPECT_EQ(CURLE_URL_MALFORMAT, plain.code);
        expectFailure(plain.description, message);
        expectFailure(plain.description, download);
        expectFailure(curl_easy_strerror(plain.code), upload);
    }
}

TEST_F(HttpServerFaultTest, BlankInTheNameOfTheArchiveIsLeftToLibcurl) {
    RawServer server(answerWith(httpReply(200, "archive")));
    HttpServer transport(server.endpoint(), "");
    const std::string file = directory.entry("archive");

    const auto outcome = observe([&] { return transport.downloadTargetPackage("a b", file); });

    // Some versions of libcurl send the address as it is, others refuse it. None encodes it.
    if (outcome.result) {
        EXPECT_EQ(0U,
                  server.requests().at(0).find(
                      "GET /api/collection-agent/target-package?targetPackageArchiveName=a b "));
    } else {
        const PlainFailure plain = failPlainly(server.endpoint() + "/a b");
        EXPECT_EQ(CURLE_URL_MALFORMAT, plain.code);
        expectFailure(plain.description, outcome);
        EXPECT_EQ(0U, server.acceptedConnections());
    }
}

TEST_F(HttpServerFaultTest, UnknownSchemeIsDescribedByTheErrorBuffer) {
    HttpServer transport("nothing://127.0.0.1", "");

    expectFailure(failInDetail("nothing://127.0.0.1").description,
                  observe([&] { return transport.sendMessages("{}"); }));
}

TEST_F(HttpServerFaultTest, TransportWorksOnAfterAFailure) {
    RawServer server([](RawConnection& connection) {
        (void)connection.readRequest();
        if (connection.number() % 2 == 0) {
            connection.resetAtEnd();
        } else {
            (void)connection.send(httpReply(200, "fine"));
        }
    });
    HttpServer transport(server.endpoint(), "");
    const std::string file = directory.write("t", "x");

    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(observe([&] { return transport.sendMessages("{}"); }).error.has_value());
        EXPECT_EQ("fine", observe([&] { return transport.sendMessages("{}"); }).result);
        EXPECT_TRUE(
            observe([&] { return transport.downloadTargetPackage("a", file); }).error.has_value());
        EXPECT_EQ(true, observe([&] { return transport.downloadTargetPackage("a", file); }).result);
        EXPECT_TRUE(
            observe([&] { return transport.uploadTraceFile(file, "d"); }).error.has_value());
        EXPECT_EQ(true, observe([&] { return transport.uploadTraceFile(file, "d"); }).result);
    }
}

TEST_F(HttpServerFaultTest, NoRequestKeepsADescriptor) {
    const std::string file = directory.write("t", "x");
    for (const TransportFault& fault : faults()) {
        SCOPED_TRACE(fault.name);
        RawServer server(fault.script);
        HttpServer transport(server.endpoint(), "");
        const auto requestAll = [&] {
            (void)observe([&] { return transport.sendMessages("{}"); });
            (void)observe([&] { return transport.downloadTargetPackage("a", file); });
            (void)observe([&] { return transport.uploadTraceFile(file, "d"); });
        };
        requestAll();
        ASSERT_TRUE(server.waitForEndedConnections(3));
        const std::size_t before = openDescriptors();

        requestAll();

        ASSERT_TRUE(server.waitForEndedConnections(6));
        EXPECT_EQ(before, openDescriptors());
    }
}

TEST_F(HttpServerFaultTest, HalfClosedConnectionEndsAnUnfinishedReply) {
    RawServer server([](RawConnection& connection) {
        (void)connection.readRequest();
        (void)connection.send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nabc");
        connection.halfClose();
        connection.waitForPeerEnd();
    });
    HttpServer transport(server.endpoint(), "");

    const auto outcome = observe([&] { return transport.sendMessages("{}"); });

    EXPECT_TRUE(server.waitForEndedConnections(1));
    expectFailure(failInDetail(server.endpoint()).description, outcome);
}

TEST_F(HttpServerFaultTest, TraceFileThatCannotBeReadIsDescribedByTheResultCode) {
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");
    const std::string file = directory.entry("vanished");

    const auto outcome = observe([&] { return transport.uploadTraceFile(file, "d"); });

    expectFailure(curl_easy_strerror(CURLE_READ_ERROR), outcome);
    EXPECT_EQ("Uploading trace file\n", outcome.out);
    EXPECT_EQ(0U, server.acceptedConnections());
}

TEST_F(HttpServerFaultTest, NamedPipeInPlaceOfATraceFileIsRefusedWithoutWaitingForAWriter) {
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");
    const std::string pipe = directory.entry("pipe");
    ASSERT_EQ(0, ::mkfifo(pipe.c_str(), 0600));
    std::filesystem::create_symlink("pipe", directory.entry("link"));

    for (const std::string& trace : {pipe, directory.entry("link")}) {
        auto upload = std::async(std::launch::async, [&] {
            return observe([&] { return transport.uploadTraceFile(trace, "d"); });
        });
        if (upload.wait_for(kDeadline) == std::future_status::timeout) {
            ADD_FAILURE() << "waits for a writer, who comes and goes now";
            const basekit2::UniqueFd writer(::open(pipe.c_str(), O_RDWR | O_CLOEXEC));
        }
        const auto outcome = upload.get();

        expectFailure(curl_easy_strerror(CURLE_READ_ERROR), outcome);
        EXPECT_EQ("Uploading trace file\n", outcome.out);
    }
    EXPECT_EQ(0U, server.acceptedConnections());
}

TEST_F(HttpServerFaultTest, PackageThatTheDeviceDoesNotTakeIsAFailure) {
    RawServer server(answerWith(httpReply(200, std::string(1'000'000, 'a'))));
    HttpServer transport(server.endpoint(), "");

    const auto outcome = observe([&] { return transport.downloadTargetPackage("a", "/dev/full"); });

    expectFailure(outcome.error.value_or("no error"), outcome);
    EXPECT_EQ(reportOfALostReply(), withoutNumbers(outcome.err));
    EXPECT_EQ("Downloading target package\n", outcome.out);
}

TEST_F(HttpServerFaultTest, PackageThatIsLostWhenTheFileIsClosedIsAFailure) {
    RawServer server(answerWith(httpReply(200, "fits into every buffer")));
    HttpServer transport(server.endpoint(), "");

    const auto outcome = observe([&] { return transport.downloadTargetPackage("a", "/dev/full"); });

    expectFailure(curl_easy_strerror(CURLE_WRITE_ERROR), outcome);
    EXPECT_EQ("Downloading target package\n", outcome.out);
}

TEST_F(HttpServerFaultTest, FullDiskIsAFailure) {
    RawServer server([](RawConnection& connection) {
        const std::string request = connection.readRequest();
        const bool large = request.find("=large ") != std::string::npos;
        (void)connection.send(httpReply(200, std::string(large ? 1'000'000 : 100, 'a')));
    });
    const std::string disk = directory.entry("disk");
    std::filesystem::create_directory(disk);

    const bool mounted = runWithPrivateMounts([&] {
        ASSERT_EQ(0, ::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=64k"));
        HttpServer transport(server.endpoint(), "");

        const auto large =
            observe([&] { return transport.downloadTargetPackage("large", disk + "/1"); });
        const auto small =
            observe([&] { return transport.downloadTargetPackage("small", disk + "/2"); });

        expectFailure(large.error.value_or("no error"), large);
        EXPECT_EQ(reportOfALostReply(), withoutNumbers(large.err));
        EXPECT_EQ(65536U, std::filesystem::file_size(disk + "/1"));
        expectFailure(curl_easy_strerror(CURLE_WRITE_ERROR), small);
        EXPECT_EQ(0U, std::filesystem::file_size(disk + "/2"));
    });

    if (!mounted) {
        GTEST_SKIP() << "a full disk takes the right to mount one";
    }
}

TEST_F(HttpServerFaultTest, FullStandardOutputDoesNotBreakARequest) {
    RawServer server(answerWith(httpReply(200, "reply")));
    HttpServer transport(server.endpoint(), "");
    const std::string file = directory.write("t", "x");
    std::string reply;
    bool downloaded = false;
    {
        const kolvan::test::CapturedStream keeper(1);
        const basekit2::UniqueFd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
        ASSERT_EQ(1, ::dup2(full.get(), 1));
        reply = transport.sendMessages("{}");
        downloaded = transport.downloadTargetPackage("a", file);
        __fpurge(stdout);  // what the device did not take would come out later
    }
    std::clearerr(stdout);
    std::cout.clear();

    EXPECT_EQ("reply", reply);
    EXPECT_TRUE(downloaded);
}

// Runs in a process of its own, whose memory ends before the reply does.
[[noreturn]] void receiveEndlessReply() {
    const std::string expected = reportOfALostReply();
    RawServer server([](RawConnection& connection) {
        (void)connection.readRequest();
        (void)connection.send("HTTP/1.1 200 OK\r\n\r\n");
        const std::string part(1'000'000, 'x');
        while (connection.send(part)) {
        }
    });
    HttpServer transport(server.endpoint(), "");
    const basekit2::UniqueFd nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    ::dup2(nowhere.get(), 1);
    const rlimit limit{600'000'000, 600'000'000};
    ::setrlimit(RLIMIT_AS, &limit);
    std::string error;
    try {
        (void)transport.sendMessages("{}");
    } catch (const std::runtime_error& failure) {
        error = failure.what();
    }
    std::_Exit(withoutNumbers(error) == expected ? 0 : 1);
}

TEST_F(HttpServerFaultTest, ReplyThatOutgrowsTheMemoryIsAFailure) {
    if (kSanitized) {
        GTEST_SKIP() << "sanitizers need more addresses than a limit leaves";
    }

    const std::string report = reportOfALostReply();
    const std::string withoutDetails = report.substr(0, report.find(','));
    EXPECT_EXIT(receiveEndlessReply(), testing::ExitedWithCode(0), withoutDetails);
}

}  // namespace

}  // namespace cagnt1
