#include "tests/companions/server/support/ServerScene.h"
#include "tests/companions/server/support/TlsClient.h"
#include "tests/support/Certificates.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>

namespace kolvan::test {
namespace {

using server::http::Awaitable;
using server::http::Request;
using server::http::Response;
using server::http::textResponse;
using server::http::TlsIdentity;

// The greatest version stands in the upper half.
constexpr long kOnlyTls11 = CURL_SSLVERSION_TLSv1_1 | CURL_SSLVERSION_TLSv1_1 << 16;
constexpr long kOnlyTls12 = CURL_SSLVERSION_TLSv1_2 | CURL_SSLVERSION_TLSv1_2 << 16;

TlsAnswer post(const ServerScene& scene, const std::string& authority, const std::string& body,
               long tlsVersions = CURL_SSLVERSION_DEFAULT, const std::string& target = "/echo") {
    TlsRequest request{scene.port(), authority, target};
    request.body = body;
    request.tlsVersions = tlsVersions;
    return sendOverTls(request);
}

Awaitable<Response> echo(Request& request) {
    std::string body = co_await request.readAll();
    co_return textResponse(200, "text/plain", std::move(body));
}

class TlsScene : public ServerScene {
public:
    TlsScene() {
        router.add(
            "POST", "/pool",
            [this](Request& request) -> Awaitable<Response> {
                std::string body;
                const auto take = [&body](std::string_view piece) { body += piece; };
                co_await request.readOnPool(threads(), take);
                co_return textResponse(200, "text/plain", std::move(body));
            },
            64 << 20);
        const ServerIdentity identity = certificates.valid();
        settings.identity =
            std::make_shared<TlsIdentity>(identity.certificateFile, identity.keyFile);
        router.add("POST", "/echo", echo, 64 << 20);
        start();
    }

    const Certificates certificates;
};

TEST(ServerTlsTest, BodiesOfEverySizeGoThereAndBack) {
    TlsScene scene;
    for (const std::size_t size : {1U, 1000U, 16'384U, 70'000U, 9'000'000U}) {
        const std::string body(size, 'x');

        for (const char* const target : {"/echo", "/pool"}) {
            const TlsAnswer answer = post(scene, scene.certificates.authorityFile(), body,
                                          CURL_SSLVERSION_DEFAULT, target);

            EXPECT_EQ(CURLE_OK, answer.result);
            EXPECT_TRUE(body == answer.body) << size << target;
        }
    }
    scene.stop();
}

TEST(ServerTlsTest, BothVersionsOfTodayAreSpoken) {
    TlsScene scene;
    const std::string authority = scene.certificates.authorityFile();

    EXPECT_EQ("a", post(scene, authority, "a", kOnlyTls12).body);
    EXPECT_EQ("a", post(scene, authority, "a", CURL_SSLVERSION_TLSv1_3).body);
    scene.stop();
}

TEST(ServerTlsTest, OldVersionsAreRefused) {
    TlsScene scene;

    EXPECT_EQ(CURLE_SSL_CONNECT_ERROR,
              post(scene, scene.certificates.authorityFile(), "a", kOnlyTls11).result);
    scene.stop();
}

// The server looks at the files every few seconds.
TEST(ServerTlsTest, RenewedCertificateIsServedWithoutARestart) {
    const Certificates certificates;
    const ServerIdentity first = certificates.valid();
    const ServerIdentity second = certificates.selfSigned();
    const TemporaryDirectory directory;
    const std::string certificate =
        directory.write("certificate.pem", readFile(first.certificateFile));
    const std::string key = directory.write("key.pem", readFile(first.keyFile));
    ServerScene scene;
    scene.settings.identity = std::make_shared<TlsIdentity>(certificate, key);
    scene.router.add("POST", "/echo", echo);
    scene.start();
    EXPECT_EQ("a", post(scene, certificates.authorityFile(), "a").body);

    (void)directory.write("certificate.pem", readFile(second.certificateFile));
    (void)directory.write("key.pem", readFile(second.keyFile));

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    TlsAnswer answer;
    while (answer.body != "a" && std::chrono::steady_clock::now() < deadline) {
        answer = post(scene, second.certificateFile, "a");
    }
    EXPECT_EQ("a", answer.body);
    EXPECT_EQ("The certificate has been read again: " + certificate, scene.log().back());
}

TEST(ServerTlsTest, PlainRequestDisturbsNobody) {
    TlsScene scene;
    Client client(scene.port());

    client.send("GET /echo HTTP/1.1\r\nHost: a\r\n\r\n");

    EXPECT_EQ(0, client.readResponse().status);
    EXPECT_EQ("a", post(scene, scene.certificates.authorityFile(), "a").body);
    scene.stop();
}

TEST(ServerTlsTest, ClientThatDoesNotBeginIsDropped) {
    ServerScene scene;
    const Certificates certificates;
    const ServerIdentity identity = certificates.valid();
    scene.settings.identity =
        std::make_shared<TlsIdentity>(identity.certificateFile, identity.keyFile);
    scene.settings.limits.handshake = std::chrono::seconds(0);
    scene.start();
    Client client(scene.port());

    EXPECT_EQ("", client.readAll());
}

TEST(ServerTlsTest, ManyClientsAtOnce) {
    TlsScene scene;
    const std::string authority = scene.certificates.authorityFile();
    std::vector<std::future<TlsAnswer>> answers;
    for (std::size_t number = 0; number < 16; ++number) {
        answers.push_back(std::async(std::launch::async, [&scene, &authority, number] {
            return post(scene, authority, std::string(number * 50'000, 'y'));
        }));
    }
    for (std::size_t number = 0; number < answers.size(); ++number) {
        EXPECT_EQ(number * 50'000, answers[number].get().body.size());
    }
    scene.stop();
}

}  // namespace
}  // namespace kolvan::test
