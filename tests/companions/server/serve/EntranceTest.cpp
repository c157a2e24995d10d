// How people and agents get in, through the program: certificates that are replaced while it
// serves, and the link for the first login.

#include "tests/companions/server/serve/ServerPlace.h"
#include "tests/companions/server/support/FakeAgent.h"
#include "tests/companions/server/support/TlsClient.h"
#include "tests/support/AgentProcess.h"
#include "tests/support/Certificates.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <future>
#include <string>

namespace kolvan::test {
namespace {

using testing::HasSubstr;
using testing::Not;

class EntranceTest : public ServerPlaceTest {
protected:
    /// A start with TLS, with copies of these files that `identify` replaces.
    ServerStart secureStart(const ServerIdentity& identity) const {
        identify(identity);
        ServerStart secure = start();
        secure.moreArguments = {"--certificate", place.entry("certificate.pem"), "--key",
                                place.entry("key.pem")};
        return secure;
    }

    /// The code in the link that the server prints as long as nobody has an account.
    static std::string codeOf(RunningServer& server) {
        (void)server.port();  // said it all by then
        const std::string said = server.output();
        const std::string before = "/first-login#";
        const std::size_t at = said.find(before);
        return at == std::string::npos
                   ? "none"
                   : said.substr(at + before.size(), said.find('\n', at) - at - before.size());
    }

    static std::string loginWith(const std::string& code) {
        return R"({"code":")" + code + R"(","name":"ada","password":"correct horse"})";
    }

    void identify(const ServerIdentity& identity) const {
        (void)place.write("certificate.pem", readFile(identity.certificateFile));
        (void)place.write("key.pem", readFile(identity.keyFile));
    }
};

TEST_F(EntranceTest, NewConnectionsSeeAReplacedCertificateWhileAHeldPollGoesOn) {
    const Certificates before;
    const Certificates after;
    const std::string both =
        place.write("both.pem", readFile(before.authorityFile()) + readFile(after.authorityFile()));
    RunningServer server(secureStart(before.valid()));
    const FakeAgent agent("uuid-1", server.command({"agent-token", "add", "build-7"}));
    const std::string administrator =
        "Authorization: Bearer " +
        server.command({"token", "add", "boss", "--role", "administrator"});
    const auto send = [&](const std::string& authority, const std::string& path) {
        return sendOverTls({server.port(), authority, path, {}, {administrator}});
    };
    const auto say = [&, port = server.port()](const std::string& message) {
        return sendOverTls({port, both, "/api/collection-agent/message", message});
    };
    ASSERT_EQ(200, say(agent.message("connect", FakeAgent::kHost)).status);
    // One poll on a machine that is not overloaded: each is held for half a minute.
    auto commands = std::async(std::launch::async, [&] {
        TlsAnswer answer;
        do {
            answer = say(agent.message("commands:get"));
        } while (answer.status == 200 && answer.body.find("messageType") == std::string::npos);
        return answer;
    });
    ASSERT_TRUE(lookUntil([&] {
        return send(before.authorityFile(), "/metrics").body.find("kolvan_held_polls 1\n") !=
               std::string::npos;
    }));
    EXPECT_EQ(CURLE_PEER_FAILED_VERIFICATION, send(after.authorityFile(), "/healthz").result);

    identify(after.valid());

    ASSERT_TRUE(lookUntil([&] { return send(after.authorityFile(), "/healthz").status == 200; }));
    EXPECT_EQ(CURLE_PEER_FAILED_VERIFICATION, send(before.authorityFile(), "/healthz").result);
    EXPECT_EQ(std::future_status::timeout, commands.wait_for(std::chrono::seconds(0)));
    const std::string agents = send(after.authorityFile(), "/api/v1/agents").body;
    const std::size_t id = agents.find("\"id\":\"") + 6;
    EXPECT_EQ(202, sendOverTls({server.port(),
                                after.authorityFile(),
                                "/api/v1/agents/" + agents.substr(id, agents.find('"', id) - id) +
                                    "/processes",
                                "",
                                {administrator}})
                       .status);
    const TlsAnswer answer = commands.get();
    EXPECT_EQ(CURLE_OK, answer.result);
    EXPECT_THAT(answer.body, HasSubstr("\"collector:execute\""));
    EXPECT_THAT(server.errors(), HasSubstr("The certificate has been read again: "));
}

TEST_F(EntranceTest, FilesThatDoNotFitTogetherLeaveTheCertificateInUse) {
    const Certificates before;
    const Certificates after;
    RunningServer server(secureStart(before.valid()));
    const TlsRequest question{server.port(), before.authorityFile(), "/healthz"};
    ASSERT_EQ(200, sendOverTls(question).status);

    (void)place.write("certificate.pem", readFile(after.valid().certificateFile));

    EXPECT_TRUE(server.waitForErrors("The certificate in use is kept: "));
    EXPECT_EQ(200, sendOverTls(question).status);
}

TEST_F(EntranceTest, LinkOfTheFirstLoginMakesAnAdministratorOnce) {
    const Certificates certificates;
    const ServerStart secure = secureStart(certificates.valid());
    std::string cookie;
    {
        RunningServer server(secure);
        TlsRequest redeem{server.port(), certificates.authorityFile(), "/api/v1/session/first"};
        EXPECT_THAT(
            server.output(),
            HasSubstr("  https://127.0.0.1:" + std::to_string(server.port()) + "/first-login#"));
        redeem.body = loginWith(codeOf(server));
        redeem.fields = {"Content-Type: application/json"};

        const TlsAnswer first = sendOverTls(redeem);
        const TlsAnswer second = sendOverTls(redeem);

        EXPECT_EQ(200, first.status) << first.body;
        EXPECT_THAT(first.body, HasSubstr(R"("name":"ada","role":"administrator")"));
        EXPECT_EQ(401, second.status);
        const std::size_t name = first.head.find("__Host-kolvan_session=");
        ASSERT_NE(std::string::npos, name) << first.head;
        cookie = first.head.substr(name, first.head.find(';', name) - name);
        server.sendSignal(SIGTERM);
        EXPECT_EQ("exited with 0", server.waitForEnd());
    }
    RunningServer next(secure);
    TlsRequest who{next.port(), certificates.authorityFile(), "/api/v1/session"};
    who.fields = {"Cookie: " + cookie};

    EXPECT_EQ(200, sendOverTls(who).status);
    EXPECT_THAT(next.output(), Not(HasSubstr("first-login")));
}

TEST_F(EntranceTest, LinkThatNobodyHasUsedIsReplacedByThatOfTheNextStart) {
    std::string old;
    const auto redeem = [](unsigned port, const std::string& code) {
        const std::string body = loginWith(code);
        Client client(port);
        (void)client.send(
            "POST /api/v1/session/first HTTP/1.1\r\nHost: test\r\nConnection: close\r\n"
            "Content-Type: application/json\r\nContent-Length: " +
            std::to_string(body.size()) + "\r\n\r\n" + body);  // the answer tells
        return client.readResponse().status;
    };
    {
        RunningServer server(start());
        old = codeOf(server);
    }
    RunningServer next(start());
    const unsigned port = next.port();

    EXPECT_EQ(401, redeem(port, old));
    EXPECT_EQ(200, redeem(port, codeOf(next)));
}

}  // namespace
}  // namespace kolvan::test
