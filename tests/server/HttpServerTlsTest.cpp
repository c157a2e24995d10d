#include "server/HttpServer.h"

#include "tests/server/Transport.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/Certificates.h"
#include "tests/support/Gate.h"
#include "tests/support/PlainTransfer.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/RawServer.h"
#include "tests/support/TemporaryDirectory.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <openssl/x509_vfy.h>

#include <atomic>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <sys/mount.h>

namespace cagnt1 {

namespace {

using kolvan::test::answerWith;
using kolvan::test::BackgroundCall;
using kolvan::test::CapturedStream;
using kolvan::test::Certificates;
using kolvan::test::expectFailure;
using kolvan::test::failInDetail;
using kolvan::test::Gate;
using kolvan::test::httpReply;
using kolvan::test::observe;
using kolvan::test::PlainFailure;
using kolvan::test::RawConnection;
using kolvan::test::RawServer;
using kolvan::test::readFile;
using kolvan::test::runWithPrivateMounts;
using kolvan::test::ServerIdentity;
using kolvan::test::TemporaryDirectory;

// What OpenSSL calls the result of a verification.
std::string inWords(long verificationResult) {
    return X509_verify_cert_error_string(verificationResult);
}

class HttpServerTlsTest : public kolvan::test::TransportTest {
protected:
    // Expects that each of the three requests reaches the server.
    void expectAccepted(const ServerIdentity& identity, const std::string& certificatePath) {
        RawServer server(answerWith(httpReply(200, "reply")), identity);
        HttpServer transport(server.endpoint(), certificatePath);

        const auto message = observe([&] { return transport.sendMessages("{}"); });
        const auto download = observe([&] { return transport.downloadTargetPackage("a", file); });
        const auto upload = observe([&] { return transport.uploadTraceFile(file, "d"); });

        EXPECT_EQ("reply", message.result) << message.err;
        EXPECT_EQ(true, download.result) << download.err;
        EXPECT_EQ("reply", readFile(file));
        EXPECT_EQ(true, upload.result) << upload.err;
        EXPECT_EQ(3U, server.requests().size());
        EXPECT_EQ(0U, server.failedHandshakes());
    }

    // Expects that none of the three requests says anything to the server, and that `reason` is
    // part of what they fail with.
    void expectRefused(const ServerIdentity& identity, const std::string& reason) {
        RawServer server(answerWith(httpReply(200, "reply")), identity);
        HttpServer transport(server.endpoint(), "");

        const auto message = observe([&] { return transport.sendMessages("{}"); });
        const auto download = observe([&] { return transport.downloadTargetPackage("a", file); });
        const auto upload = observe([&] { return transport.uploadTraceFile(file, "d"); });

        const PlainFailure plain = failInDetail(server.endpoint());
        EXPECT_EQ(CURLE_PEER_FAILED_VERIFICATION, plain.code);
        EXPECT_NE(std::string::npos, plain.description.find(reason)) << plain.description;
        expectFailure(plain.description, message);
        expectFailure(plain.description, download);
        expectFailure(curl_easy_strerror(plain.code), upload);
        EXPECT_EQ("out: {}\n", message.out);
        EXPECT_EQ("Downloading target package\n", download.out);
        EXPECT_EQ("Uploading trace file\n", upload.out);
        EXPECT_TRUE(server.waitForEndedConnections(4));
        EXPECT_EQ(0U, server.requests().size());
    }

    Certificates certificates;
    TemporaryDirectory directory;
    std::string file = directory.write("t", "x");
};

TEST_F(HttpServerTlsTest, SelfSignedServerIsRefusedWithoutCertificate) {
    expectRefused(certificates.selfSigned(), inWords(X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT));
}

TEST_F(HttpServerTlsTest, ServerOfAnUnknownAuthorityIsRefusedWithoutCertificate) {
    expectRefused(certificates.valid(), inWords(X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY));
}

TEST_F(HttpServerTlsTest, SystemsAuthoritiesDecideWithoutCertificate) {
    constexpr char kSystemsAuthorities[] = "/etc/ssl/certs/ca-certificates.crt";
    if (!std::filesystem::exists(kSystemsAuthorities)) {
        GTEST_SKIP() << "this system keeps its authorities elsewhere";
    }

    const bool mounted = runWithPrivateMounts([&] {
        ASSERT_EQ(0, ::mount(certificates.authorityFile().c_str(), kSystemsAuthorities, nullptr,
                             MS_BIND, nullptr));

        expectAccepted(certificates.valid(), "");
        expectRefused(certificates.expired(), inWords(X509_V_ERR_CERT_HAS_EXPIRED));
        expectRefused(certificates.otherHost(), "'127.0.0.1'");
        expectRefused(certificates.selfSigned(), inWords(X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT));
    });

    if (!mounted) {
        GTEST_SKIP() << "other authorities take the right to mount them";
    }
}

TEST_F(HttpServerTlsTest, AnyServerIsAcceptedWithACertificate) {
    const std::string authority = certificates.authorityFile();

    expectAccepted(certificates.valid(), authority);
    expectAccepted(certificates.selfSigned(), authority);
    expectAccepted(certificates.expired(), authority);
    expectAccepted(certificates.otherHost(), authority);
}

TEST_F(HttpServerTlsTest, ServerOfAnotherAuthorityIsAcceptedWithACertificate) {
    const Certificates others;

    expectAccepted(others.valid(), certificates.authorityFile());
}

TEST_F(HttpServerTlsTest, CertificateFileNeedsToHoldNothingUseful) {
    // Deliberate: with the verification off, libcurl does without the file that it was given.
    expectAccepted(certificates.selfSigned(), directory.entry("missing.pem"));
    expectAccepted(certificates.selfSigned(), directory.write("garbage.pem", "no certificate\n"));
    expectAccepted(certificates.selfSigned(), directory.write("empty.pem", ""));
    expectAccepted(certificates.selfSigned(), directory.path().string());
}

TEST_F(HttpServerTlsTest, ResetInTheHandshakeIsAFailure) {
    RawServer server([](RawConnection& connection) {
        (void)connection.receive();
        connection.resetAtEnd();
    });
    HttpServer transport("https://" + server.host(), certificates.authorityFile());

    const auto message = observe([&] { return transport.sendMessages("{}"); });
    const auto upload = observe([&] { return transport.uploadTraceFile(file, "d"); });

    const PlainFailure plain = failInDetail("https://" + server.host(), {.verifiesServer = false});
    EXPECT_EQ(CURLE_SSL_CONNECT_ERROR, plain.code);
    expectFailure(plain.description, message);
    expectFailure(curl_easy_strerror(plain.code), upload);
}

TEST_F(HttpServerTlsTest, ServerWithoutTlsIsAFailure) {
    RawServer server([](RawConnection& connection) {
        (void)connection.receive();
        (void)connection.send("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n");
    });
    HttpServer transport("https://" + server.host(), certificates.authorityFile());

    const auto message = observe([&] { return transport.sendMessages("{}"); });
    const auto upload = observe([&] { return transport.uploadTraceFile(file, "d"); });

    const PlainFailure plain = failInDetail("https://" + server.host(), {.verifiesServer = false});
    EXPECT_EQ(CURLE_SSL_CONNECT_ERROR, plain.code);
    expectFailure(plain.description, message);
    expectFailure(curl_easy_strerror(plain.code), upload);
}

TEST_F(HttpServerTlsTest, HandshakeThatNeverEndsLastsAsLongAsTheConnection) {
    Gate greeted;
    Gate mayEnd;
    RawServer server([&](RawConnection& connection) {
        (void)connection.receive();
        greeted.open();
        mayEnd.wait();
        connection.resetAtEnd();
    });
    HttpServer transport("https://" + server.host(), certificates.authorityFile());

    BackgroundCall call([&] { return observe([&] { return transport.sendMessages("{}"); }); });
    greeted.wait();
    EXPECT_TRUE(call.isBlocked());
    mayEnd.open();

    const auto outcome = call.get();
    expectFailure(failInDetail("https://" + server.host(), {.verifiesServer = false}).description,
                  outcome);
    EXPECT_EQ("out: {}\n", outcome.out);
}

TEST_F(HttpServerTlsTest, CompleteReplyNeedsNoCloseNotice) {
    RawServer server(
        [](RawConnection& connection) {
            (void)connection.readRequest();
            (void)connection.send(httpReply(200, "whole"));
            connection.omitCloseNotice();
        },
        certificates.valid());
    HttpServer transport(server.endpoint(), certificates.authorityFile());

    EXPECT_EQ("whole", observe([&] { return transport.sendMessages("{}"); }).result);
}

TEST_F(HttpServerTlsTest, ReplyWithoutLengthEndsWithTheCloseNotice) {
    RawServer server(answerWith("HTTP/1.1 200 OK\r\n\r\nto the end"), certificates.valid());
    HttpServer transport(server.endpoint(), certificates.authorityFile());

    EXPECT_EQ("to the end", observe([&] { return transport.sendMessages("{}"); }).result);
}

TEST_F(HttpServerTlsTest, ReplyThatWasCutIsAFailure) {
    RawServer server(
        [](RawConnection& connection) {
            (void)connection.readRequest();
            (void)connection.send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\ncut");
            connection.omitCloseNotice();
        },
        certificates.valid());
    HttpServer transport(server.endpoint(), certificates.authorityFile());

    const auto outcome = observe([&] { return transport.sendMessages("{}"); });

    expectFailure(failInDetail(server.endpoint(), {.verifiesServer = false}).description, outcome);
    EXPECT_EQ("out: {}\n", outcome.out);
}

TEST_F(HttpServerTlsTest, ThreadsSurviveAServerThatResets) {
    RawServer server(
        [](RawConnection& connection) {
            (void)connection.readHead();
            connection.resetAtEnd();
        },
        certificates.valid());
    HttpServer transport(server.endpoint(), certificates.authorityFile());
    constexpr int kRounds = 20;
    constexpr int kThreads = 16;
    std::atomic<int> failures = 0;
    {
        const CapturedStream out(1);
        const CapturedStream err(2);
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&] {
                for (int round = 0; round < kRounds; ++round) {
                    try {
                        (void)transport.sendMessages(std::string(100'000, 'x'));
                    } catch (const std::runtime_error&) {
                        ++failures;
                    }
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    EXPECT_EQ(kThreads * kRounds, failures.load());
}

}  // namespace

}  // namespace cagnt1
