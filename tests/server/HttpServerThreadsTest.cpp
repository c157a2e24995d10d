#include "server/HttpServer.h"

#include "tests/server/CurlCalls.h"
#include "tests/server/Transport.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/PlainTransfer.h"
#include "tests/support/RawServer.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <latch>
#include <list>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace cagnt1 {

namespace {

using kolvan::test::answerWith;
using kolvan::test::BackgroundCall;
using kolvan::test::bodyOf;
using kolvan::test::CapturedStream;
using kolvan::test::CurlCalls;
using kolvan::test::failInDetail;
using kolvan::test::httpReply;
using kolvan::test::RawConnection;
using kolvan::test::RawServer;
using kolvan::test::readFile;
using kolvan::test::TemporaryDirectory;

constexpr std::size_t kThreads = 32;

void runOnThreads(const std::function<void(std::size_t)>& work) {
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            start.arrive_and_wait();
            work(i);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

std::vector<std::string> sortedLines(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

// Longer than the buffers in which output is gathered, and different for every thread.
std::string longText(std::size_t thread, const std::string& name) {
    return name + std::to_string(thread) + std::string(100'000, static_cast<char>('A' + thread));
}

class HttpServerThreadsTest : public kolvan::test::TransportTest {
protected:
    TemporaryDirectory directory;
};

TEST_F(HttpServerThreadsTest, LinesOfDifferentThreadsNeverMix) {
    RawServer server([](RawConnection& connection) {
        const std::string request = bodyOf(connection.readRequest());
        (void)connection.send(httpReply(200, "reply to " + request));
    });
    HttpServer transport(server.endpoint(), "");
    std::vector<std::string> expected;
    for (std::size_t i = 0; i < kThreads; ++i) {
        for (int round = 0; round < 3; ++round) {
            expected.push_back("out: " + longText(i, "request"));
            expected.push_back("in:  reply to " + longText(i, "request"));
        }
    }
    std::sort(expected.begin(), expected.end());
    std::string output;
    {
        const CapturedStream out(1);
        runOnThreads([&](std::size_t i) {
            for (int round = 0; round < 3; ++round) {
                (void)transport.sendMessages(longText(i, "request"));
            }
        });
        output = out.text();
    }

    EXPECT_TRUE(expected == sortedLines(output));
    EXPECT_EQ('\n', output.back());
}

TEST_F(HttpServerThreadsTest, RequestsOfAllKindsRunAtTheSameTime) {
    // Nobody is answered before all are there: a request that waits for another one never ends.
    std::latch everybodyIsThere(3 * kThreads);
    RawServer server([&](RawConnection& connection) {
        const std::string request = connection.readRequest();
        everybodyIsThere.arrive_and_wait();
        const bool upload = request.find("/trace/upload ") != std::string::npos;
        (void)connection.send(httpReply(200, upload ? "" : request));
    });
    HttpServer transport(server.endpoint(), "");
    const std::string trace = directory.write("t", "x");
    std::vector<std::string> replies(kThreads);
    std::string output;
    {
        const CapturedStream out(1);
        runOnThreads([&](std::size_t i) {
            const std::string name = std::to_string(i);
            std::thread download(
                [&] { (void)transport.downloadTargetPackage(name, directory.entry(name)); });
            std::thread upload([&] { (void)transport.uploadTraceFile(trace, "dir" + name); });
            replies[i] = bodyOf(transport.sendMessages("message " + name));
            download.join();
            upload.join();
        });
        output = out.text();
    }

    EXPECT_EQ(3 * kThreads, server.acceptedConnections());
    const std::vector<std::string> lines = sortedLines(output);
    EXPECT_EQ(static_cast<std::ptrdiff_t>(kThreads),
              std::count(lines.begin(), lines.end(), "Downloading target package"));
    EXPECT_EQ(static_cast<std::ptrdiff_t>(kThreads),
              std::count(lines.begin(), lines.end(), "Uploading trace file"));
    for (std::size_t i = 0; i < kThreads; ++i) {
        EXPECT_EQ("message " + std::to_string(i), replies[i]);
        EXPECT_NE(std::string::npos, readFile(directory.entry(std::to_string(i)))
                                         .find("ArchiveName=" + std::to_string(i) + " "));
    }
}

TEST_F(HttpServerThreadsTest, TemplatesAreDuplicatedOneAfterTheOther) {
    RawServer server(answerWith(httpReply(200, "")));
    const std::string trace = directory.write("t", "x");
    const CapturedStream out(1);
    CurlCalls calls;
    HttpServer transport(server.endpoint(), "");
    const std::vector<std::function<void()>> requests = {
        [&] { (void)transport.sendMessages("{}"); },
        [&] { (void)transport.downloadTargetPackage("a", directory.entry("a")); },
        [&] { (void)transport.uploadTraceFile(trace, "d"); },
    };
    for (const std::function<void()>& request : requests) {
        calls.holdDuplications();
        BackgroundCall first(request);
        calls.waitForDuplication();
        std::list<BackgroundCall<void>> others;
        for (const std::function<void()>& other : requests) {
            EXPECT_TRUE(others.emplace_back(other).isBlocked());
        }

        EXPECT_EQ(1U, calls.duplicationsAtOnce());

        calls.releaseDuplications();
        first.get();
        std::for_each(others.begin(), others.end(), [](auto& other) { other.get(); });
    }
    EXPECT_EQ(1U, calls.duplicationsAtOnce());
    EXPECT_EQ(3U + 3U * 4U, calls.handles().size());
}

TEST_F(HttpServerThreadsTest, TemplatesAreNotReleasedDuringADuplication) {
    RawServer server(answerWith(httpReply(200, "reply")));
    const CapturedStream out(1);
    CurlCalls calls;
    auto transport = std::make_unique<HttpServer>(server.endpoint(), "");
    const HttpServer other("", "");  // the library outlives the transport, as its request does
    calls.holdDuplications();
    BackgroundCall request([&transport = *transport] { return transport.sendMessages("{}"); });
    calls.waitForDuplication();

    BackgroundCall end([&] { transport.reset(); });
    EXPECT_TRUE(end.isBlocked());

    for (std::size_t handle = 0; handle < 3; ++handle) {
        EXPECT_FALSE(calls.handles().at(handle).released);
    }
    calls.releaseDuplications();
    EXPECT_EQ("reply", request.get());
    end.get();
    EXPECT_TRUE(calls.handles().at(0).released);
}

TEST_F(HttpServerThreadsTest, FailuresOfDifferentThreadsDoNotMix) {
    RawServer server([](RawConnection& connection) {
        const std::string request = connection.readRequest();
        (void)connection.send("HTTP/1.1 200 OK\r\nContent-Length: " + bodyOf(request) + "\r\n\r\n");
    });
    HttpServer transport(server.endpoint(), "");
    std::vector<std::string> errors(kThreads);
    {
        const CapturedStream out(1);
        const CapturedStream err(2);
        runOnThreads([&](std::size_t i) {
            try {
                (void)transport.sendMessages(std::to_string(100 + i));
            } catch (const std::runtime_error& error) {
                errors[i] = error.what();
            }
        });
    }

    for (std::size_t i = 0; i < kThreads; ++i) {
        const std::string missing = std::to_string(100 + i);
        EXPECT_EQ(failInDetail(server.endpoint(), {.body = missing}).description, errors[i]);
        EXPECT_NE(std::string::npos, errors[i].find(missing)) << "the failures are all alike";
    }
}

}  // namespace

}  // namespace cagnt1
