#include "server/HttpServer.h"
#include "tests/server/Transport.h"
#include "tests/support/RawServer.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

// Above a megabyte libcurl asks the server whether it may begin, when it has looked at the file.
constexpr std::uintmax_t kSize = 3'000'000;

/// An upload during which something happens to the file: between the announcement of its length and
/// the first byte of it.
class TraceFaultTest : public TransportTest {
protected:
    /// @param patience how many bytes the server waits for at most
    auto uploadDuring(const std::function<void()>& event, std::size_t patience = 2 * kSize) {
        const RawServer server([&](RawConnection& connection) {
            const std::string head = connection.readHead();
            event();
            (void)connection.send("HTTP/1.1 100 Continue\r\n\r\n");
            length = std::stoull(headerOf(head, "Content-Length"));
            for (std::string part = "x";
                 !part.empty() && body.size() < std::min(length, patience);) {
                part = connection.receive();
                body += part;
            }
            if (body.size() >= length) {
                (void)connection.send(httpReply(200, ""));
            }
        });
        cagnt1::HttpServer transport(server.endpoint(), "");
        const std::size_t descriptors = openDescriptors();
        auto outcome = observe([&] { return transport.uploadTraceFile(trace, "traces"); });
        (void)server.waitForEndedConnections(1);
        EXPECT_GE(descriptors, openDescriptors());
        return outcome;
    }

    bool wholeTraceArrived() const {
        return body.find("\r\n\r\n" + std::string(kSize, 'a')) != std::string::npos;
    }

    const TemporaryDirectory directory;
    const std::string trace = directory.write("trace", std::string(kSize, 'a'));
    std::size_t length = 0;  ///< of the request, as announced
    std::string body;
};

// The added bytes follow it where the end of the form is expected: that is libcurl's.
TEST_F(TraceFaultTest, FileThatGrowsIsSentWithWhatItHadBefore) {
    const auto outcome =
        uploadDuring([&] { std::ofstream(trace, std::ios::app) << std::string(kSize, 'b'); });

    EXPECT_EQ(true, outcome.result);
    EXPECT_TRUE(wholeTraceArrived());
    EXPECT_LE(length, body.size());
}

// The rest is missed by the server alone, which is waited for like any other server.
TEST_F(TraceFaultTest, FileThatShrinksFailsWhenTheServerGivesUp) {
    const auto outcome = uploadDuring([&] { fs::resize_file(trace, kSize / 2); }, kSize / 2);

    expectFailure(outcome.error.value_or("no error"), outcome);
    EXPECT_FALSE(wholeTraceArrived());
}

TEST_F(TraceFaultTest, FileThatVanishesIsAFailure) {
    const auto outcome = uploadDuring([&] { fs::remove(trace); });

    expectFailure(outcome.error.value_or("no error"), outcome);
    EXPECT_FALSE(wholeTraceArrived());
}

TEST_F(TraceFaultTest, EmptiedFileFailsWhenTheServerGivesUp) {
    const auto outcome = uploadDuring([&] { fs::resize_file(trace, 0); }, 1);

    expectFailure(outcome.error.value_or("no error"), outcome);
    EXPECT_FALSE(wholeTraceArrived());
}

}  // namespace
}  // namespace kolvan::test
