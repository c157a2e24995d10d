#include "server/HttpServer.h"

#include "tests/server/CurlCalls.h"
#include "tests/server/Transport.h"
#include "tests/support/RawServer.h"
#include "tests/support/TemporaryDirectory.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

namespace cagnt1 {

namespace {

using kolvan::test::answerWith;
using kolvan::test::CurlCalls;
using kolvan::test::CurlHandle;
using kolvan::test::expectFailure;
using kolvan::test::httpReply;
using kolvan::test::observe;
using kolvan::test::RawServer;
using kolvan::test::readFile;
using kolvan::test::RefusingPort;
using kolvan::test::TemporaryDirectory;

using Options = std::vector<std::pair<CURLoption, std::string>>;

// Positions of the handles: the templates in the order of their making, then the duplicates.
enum : std::size_t { kMessages, kDownloads, kUploads, kFirstDuplicate };

class HttpServerCurlTest : public kolvan::test::TransportTest {
protected:
    void requestAll(HttpServer& transport) {
        (void)observe([&] { return transport.sendMessages("{}"); });
        (void)observe([&] { return transport.downloadTargetPackage("a", file); });
        (void)observe([&] { return transport.uploadTraceFile(file, "d"); });
    }

    std::ptrdiff_t unreleasedHandles() const {
        const std::vector<CurlHandle> handles = calls.handles();
        return std::count_if(handles.begin(), handles.end(),
                             [](const CurlHandle& handle) { return !handle.released; });
    }

    TemporaryDirectory directory;
    std::string file = directory.write("t", "x");
    CurlCalls calls;
};

TEST_F(HttpServerCurlTest, NoOptionIsSetButTheNamedOnesInTheirOrder) {
    HttpServer transport("http://host", "");

    const std::vector<CurlHandle> handles = calls.handles();
    ASSERT_EQ(3U, handles.size());
    EXPECT_EQ((Options{{CURLOPT_URL, "http://host/api/collection-agent/message"},
                       {CURLOPT_WRITEFUNCTION, ""}}),
              handles[kMessages].options);
    EXPECT_EQ((Options{{CURLOPT_WRITEFUNCTION, ""}}), handles[kDownloads].options);
    EXPECT_EQ((Options{{CURLOPT_URL, "http://host/api/collection-agent/trace/upload"}}),
              handles[kUploads].options);
}

TEST_F(HttpServerCurlTest, ConfiguredCertificateIsTheAuthorityFileAndTurnsVerificationOff) {
    HttpServer transport("http://host", "/opt/agent/ca.pem");

    const std::vector<CurlHandle> handles = calls.handles();
    ASSERT_EQ(3U, handles.size());
    const Options tls{{CURLOPT_CAINFO, "/opt/agent/ca.pem"},
                      {CURLOPT_SSL_VERIFYHOST, "0"},
                      {CURLOPT_SSL_VERIFYPEER, "0"}};
    Options messages{{CURLOPT_URL, "http://host/api/collection-agent/message"},
                     {CURLOPT_WRITEFUNCTION, ""}};
    Options downloads{{CURLOPT_WRITEFUNCTION, ""}};
    Options uploads{{CURLOPT_URL, "http://host/api/collection-agent/trace/upload"}};
    messages.insert(messages.end(), tls.begin(), tls.end());
    downloads.insert(downloads.end(), tls.begin(), tls.end());
    uploads.insert(uploads.end(), tls.begin(), tls.end());
    EXPECT_EQ(messages, handles[kMessages].options);
    EXPECT_EQ(downloads, handles[kDownloads].options);
    EXPECT_EQ(uploads, handles[kUploads].options);
}

TEST_F(HttpServerCurlTest, RequestSetsOnlyWhatIsItsOwn) {
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "/opt/agent/ca.pem");

    requestAll(transport);

    const std::vector<CurlHandle> handles = calls.handles();
    ASSERT_EQ(kFirstDuplicate + 3, handles.size());
    EXPECT_EQ(
        (Options{{CURLOPT_POSTFIELDS, "{}"}, {CURLOPT_ERRORBUFFER, ""}, {CURLOPT_WRITEDATA, ""}}),
        handles[kFirstDuplicate].options);
    EXPECT_EQ(
        (Options{{CURLOPT_URL, server.endpoint() + "/api/collection-agent/"
                                                   "target-package?targetPackageArchiveName=a"},
                 {CURLOPT_WRITEDATA, ""},
                 {CURLOPT_ERRORBUFFER, ""}}),
        handles[kFirstDuplicate + 1].options);
    EXPECT_EQ((Options{{CURLOPT_HTTPHEADER, ""}, {CURLOPT_MIMEPOST, ""}}),
              handles[kFirstDuplicate + 2].options);
}

TEST_F(HttpServerCurlTest, LargeRequestSetsNoMore) {
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");
    const std::string request(std::size_t{8} << 20U, 'x');

    (void)observe([&] { return transport.sendMessages(request); });

    const std::vector<CurlHandle> handles = calls.handles();
    ASSERT_EQ(kFirstDuplicate + 1, handles.size());
    EXPECT_EQ(
        (Options{
            {CURLOPT_POSTFIELDS, request}, {CURLOPT_ERRORBUFFER, ""}, {CURLOPT_WRITEDATA, ""}}),
        handles[kFirstDuplicate].options);
}

TEST_F(HttpServerCurlTest, EachRequestRunsOnADuplicateOfItsTemplate) {
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");

    requestAll(transport);
    requestAll(transport);

    const std::vector<CurlHandle> handles = calls.handles();
    ASSERT_EQ(kFirstDuplicate + 6, handles.size());
    for (std::size_t i = 0; i < kFirstDuplicate; ++i) {
        EXPECT_FALSE(handles[i].duplicate);
        EXPECT_EQ(0U, handles[i].transfers);
    }
    for (std::size_t i = kFirstDuplicate; i < handles.size(); ++i) {
        EXPECT_TRUE(handles[i].duplicate);
        EXPECT_EQ((i - kFirstDuplicate) % 3, handles[i].origin);
        EXPECT_EQ(1U, handles[i].transfers);
        EXPECT_TRUE(handles[i].released);
    }
}

TEST_F(HttpServerCurlTest, FailedRequestReleasesItsDuplicate) {
    const RefusingPort port;
    HttpServer transport("http://" + port.host(), "");

    requestAll(transport);

    const std::vector<CurlHandle> handles = calls.handles();
    ASSERT_EQ(kFirstDuplicate + 3, handles.size());
    for (std::size_t i = kFirstDuplicate; i < handles.size(); ++i) {
        EXPECT_EQ(1U, handles[i].transfers);
        EXPECT_TRUE(handles[i].released);
    }
}

TEST_F(HttpServerCurlTest, DownloadIntoNoFileReleasesItsDuplicate) {
    HttpServer transport("http://host", "");

    (void)observe(
        [&] { return transport.downloadTargetPackage("a", directory.entry("missing/a")); });

    EXPECT_EQ(static_cast<std::ptrdiff_t>(kFirstDuplicate), unreleasedHandles());
}

TEST_F(HttpServerCurlTest, EndReleasesTheTemplatesAndTheLibrary) {
    {
        HttpServer transport("http://host", "");
        EXPECT_EQ(1, calls.globalBalance());
        EXPECT_EQ(CURL_GLOBAL_ALL, calls.globalFlags());
        EXPECT_FALSE(calls.handles().at(kMessages).released);
    }

    EXPECT_TRUE(calls.handles().at(kMessages).released);
    EXPECT_TRUE(calls.handles().at(kDownloads).released);
    EXPECT_TRUE(calls.handles().at(kUploads).released);
    EXPECT_EQ(0, calls.globalBalance());
    EXPECT_EQ(0U, calls.handlesAtCleanup());
}

TEST_F(HttpServerCurlTest, DownloadWithoutDuplicateIsNotBegun) {
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");
    calls.failDuplications();

    const auto outcome = observe([&] { return transport.downloadTargetPackage("a", file); });

    EXPECT_EQ(false, outcome.result);
    EXPECT_EQ("Downloading target package\n", outcome.out);
    EXPECT_EQ("", outcome.err);
    EXPECT_EQ("x", readFile(file));
    EXPECT_EQ(0U, server.acceptedConnections());
}

TEST_F(HttpServerCurlTest, UploadWithoutDuplicateIsNotBegun) {
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");
    calls.failDuplications();

    const auto outcome = observe([&] { return transport.uploadTraceFile(file, "d"); });

    EXPECT_EQ(false, outcome.result);
    EXPECT_EQ("Uploading trace file\n", outcome.out);
    EXPECT_EQ("", outcome.err);
    EXPECT_EQ(0U, server.acceptedConnections());
}

TEST_F(HttpServerCurlTest, MessageWithoutDuplicateIsAFailure) {
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");
    calls.failDuplications();

    const auto outcome = observe([&] { return transport.sendMessages("{}"); });

    expectFailure(curl_easy_strerror(CURLE_BAD_FUNCTION_ARGUMENT), outcome);
    EXPECT_EQ("out: {}\n", outcome.out);
    EXPECT_EQ(0U, server.acceptedConnections());
}

TEST_F(HttpServerCurlTest, TransportWithoutMemoryForAllOfItsHandlesAndOptionsIsNotMade) {
    std::size_t failures = 0;
    for (bool made = false; !made;) {
        calls.failAfter(failures);
        try {
            HttpServer("http://host", "/opt/agent/ca.pem");
            made = true;
        } catch (const std::bad_alloc&) {
            ++failures;
        }
        EXPECT_EQ(0, unreleasedHandles()) << failures;
        EXPECT_EQ(0, calls.globalBalance()) << failures;
    }

    // Three handles; two addresses, two functions; three options each for the certificate.
    EXPECT_EQ(16U, failures);
    EXPECT_FALSE(calls.hasFailed());
}

TEST_F(HttpServerCurlTest, MessageWithoutMemoryForItsOptionsIsNotSentAndTheNextOneIs) {
    RawServer server(answerWith(httpReply(200, "reply")));
    HttpServer transport(server.endpoint(), "");
    std::size_t failures = 0;
    std::string reply;

    while (reply.empty()) {
        calls.failAfter(failures);
        const kolvan::test::CapturedStream out(STDOUT_FILENO);
        try {
            reply = transport.sendMessages("{}");
        } catch (const std::bad_alloc&) {
            ++failures;
        }
    }

    EXPECT_EQ("reply", reply);
    EXPECT_EQ(3U, failures);
    EXPECT_EQ(1U, server.acceptedConnections());
    EXPECT_EQ(static_cast<std::ptrdiff_t>(kFirstDuplicate), unreleasedHandles());
}

TEST_F(HttpServerCurlTest, DownloadWithoutMemoryForItsOptionsIsNotBegunAndTheNextOneIs) {
    RawServer server(answerWith(httpReply(200, "package")));
    HttpServer transport(server.endpoint(), "");
    std::size_t failures = 0;
    bool downloaded = false;

    while (!downloaded) {
        calls.failAfter(failures);
        const kolvan::test::CapturedStream out(STDOUT_FILENO);
        try {
            downloaded = transport.downloadTargetPackage("a", file);
        } catch (const std::bad_alloc&) {
            ++failures;
        }
    }

    EXPECT_EQ("package", readFile(file));
    EXPECT_EQ(3U, failures);
    EXPECT_EQ(1U, server.acceptedConnections());
    EXPECT_EQ(static_cast<std::ptrdiff_t>(kFirstDuplicate), unreleasedHandles());
}

TEST_F(HttpServerCurlTest, TransportIsNotMadeWithoutTheCertificateThatItShallUse) {
    calls.refuse(CURLOPT_CAINFO);

    try {
        HttpServer("http://host", "/opt/agent/ca.pem");
        ADD_FAILURE() << "was made";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(curl_easy_strerror(CURLE_NOT_BUILT_IN), error.what());
    }

    EXPECT_EQ(0, unreleasedHandles());
    EXPECT_EQ(0, calls.globalBalance());
}

TEST_F(HttpServerCurlTest, RequestIsNotSentWithoutAnOptionThatItNeeds) {
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");

    for (const CURLoption option : {CURLOPT_POSTFIELDS, CURLOPT_ERRORBUFFER, CURLOPT_WRITEDATA}) {
        calls.refuse(option);
        const auto outcome = observe([&] { return transport.sendMessages("{}"); });
        EXPECT_EQ(curl_easy_strerror(CURLE_NOT_BUILT_IN), outcome.error.value_or("")) << option;
    }
    calls.refuse(CURLOPT_MIMEPOST);
    const auto upload = observe([&] { return transport.uploadTraceFile(file, "d"); });

    EXPECT_EQ(curl_easy_strerror(CURLE_NOT_BUILT_IN), upload.error.value_or(""));
    EXPECT_EQ(0U, server.acceptedConnections());
}

TEST_F(HttpServerCurlTest, AddressThatTheLibraryRefusesIsReportedByTheRequest) {
    // The library takes no text of more than eight million bytes, so the request has no address.
    std::array<char, CURL_ERROR_SIZE> words{};
    CURL* const withoutAddress = curl_easy_init();
    curl_easy_setopt(withoutAddress, CURLOPT_ERRORBUFFER, words.data());
    ASSERT_EQ(CURLE_URL_MALFORMAT, curl_easy_perform(withoutAddress));
    curl_easy_cleanup(withoutAddress);
    HttpServer transport("http://" + std::string(8'000'000, 'h'), "");

    const auto outcome = observe([&] { return transport.sendMessages("{}"); });

    expectFailure(words.data(), outcome);
}

TEST_F(HttpServerCurlTest, UploadWithoutMemoryForItsFormIsNotBegunAndTheNextOneIs) {
    RawServer server(answerWith(httpReply(200, "")));
    HttpServer transport(server.endpoint(), "");
    std::size_t failures = 0;
    bool uploaded = false;

    while (!uploaded) {
        calls.failAfter(failures);
        const kolvan::test::CapturedStream out(STDOUT_FILENO);
        try {
            uploaded = transport.uploadTraceFile(file, "d");
        } catch (const std::bad_alloc&) {
            ++failures;
        }
    }

    // Two headers, the form, two parts with a name and a content each, two options.
    EXPECT_EQ(11U, failures);
    EXPECT_FALSE(calls.hasFailed());
    EXPECT_EQ(1U, server.acceptedConnections());
    EXPECT_EQ(static_cast<std::ptrdiff_t>(kFirstDuplicate), unreleasedHandles());
}

}  // namespace

}  // namespace cagnt1
