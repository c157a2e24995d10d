#include "tests/companions/check/CheckerRun.h"
#include "tests/support/Certificates.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/RawServer.h"
#include "tests/support/standin/ProfilingServer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <ostream>
#include <sstream>
#include <string>

#include <sys/mount.h>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

const std::string kNoTime = "note: clock: The answer does not tell the time.\n";
const std::string kPlain = "note: TLS: Nothing is encrypted and nobody proves who it is.\n";
const std::string kNoFaults = "0 errors, 0 warnings.\n";
const std::string kOneError = "1 error, 0 warnings.\n";
const std::string kOneWarning = "0 errors, 1 warning.\n";
const std::string kVerificationOff =
    "warning: serverCertificateName: A certificate file is set, and this turns verification off: "
    "neither the server's certificate nor its name is checked, so that anybody on the way can be "
    "the server.\n";
constexpr char kSystemAuthorities[] = "/etc/ssl/certs/ca-certificates.crt";
constexpr char kMessages[] = R"({"messages":[]})";

class ConnectionFindingsTest : public testing::Test {
protected:
    AgentLaunch launch(const AgentSettings& settings) const {
        installation.configure(settings.text());
        fs::permissions(installation.configurationFile(), fs::perms{0640});
        return checkerLaunch(installation, {"--connect", installation.directory()});
    }

    AgentLaunch launchFor(const std::string& endpoint) const {
        AgentSettings settings;
        settings.serverEndpoint = endpoint;
        return launch(settings);
    }

    /// What the checker says of a server that answers every request so.
    std::string reportOn(const std::string& reply) const {
        RawServer server(answerWith(reply));
        return replaced(runChecker(launchFor(server.endpoint())).output, server.host(), "SERVER");
    }

    /// The report where the library's words, which differ from version to version, are left out.
    static std::string withoutWords(const std::string& report) {
        std::string result;
        std::istringstream lines(report);
        for (std::string line; std::getline(lines, line);) {
            const std::size_t words = line.find(" (");
            const bool isStatus = line.find(" (status") == words;
            result +=
                (line.ends_with(").") && !isStatus ? line.substr(0, words) + " (WORDS)." : line) +
                "\n";
        }
        return result;
    }

    AgentInstallation installation;
};

std::string reached() {
    return "note: TCP: Connected to SERVER at SERVER.\n" + kPlain + kNoTime;
}

TEST_F(ConnectionFindingsTest, ProfilingServerThatRefusesStrangersIsAsItShouldBe) {
    ServerSettings settings;
    settings.accessToken = "secret-token";
    ProfilingServer server(settings);

    const CheckerAnswer answer = runChecker(launchFor(server.endpoint()));

    EXPECT_EQ("exited with 0", answer.ending);
    EXPECT_EQ(reached() +
                  "note: endpoint: A profiling server answers. It refuses a message without token "
                  "(status 403), as it should.\n" +
                  kNoFaults,
              replaced(answer.output, "127.0.0.1:" + std::to_string(server.port()), "SERVER"));
    EXPECT_EQ(0U, server.count("connect"));
}

TEST_F(ConnectionFindingsTest, ServerSeesNoTokenAndNoAgent) {
    RawServer server(answerWith(httpReply(200, kMessages)));

    (void)runChecker(launchFor(server.endpoint()));

    ASSERT_EQ(1U, server.requests().size());
    EXPECT_TRUE(server.requests()[0].starts_with("POST /api/collection-agent/message "));
    EXPECT_EQ(R"({"messageType":"","messageParameters":{}})", bodyOf(server.requests()[0]));
    EXPECT_EQ(std::string::npos, server.requests()[0].find("secret-token"));
}

TEST_F(ConnectionFindingsTest, PageIsToldApart) {
    EXPECT_EQ(reached() +
                  "error: endpoint: The answer is an HTML page (status 200): this address belongs "
                  "to something else than a profiling server, or a part of its path is missing.\n" +
                  kOneError,
              reportOn(httpReply(200, "\n<!DOCTYPE HTML><html></html>")));
}

TEST_F(ConnectionFindingsTest, RedirectIsToldApart) {
    EXPECT_EQ(reached() +
                  "error: endpoint: The answer is a redirect (status 301) to "
                  "https://other.example/login. The agent does not follow it; configure the "
                  "address to which it leads, without /api/collection-agent/message.\n" +
                  kOneError,
              reportOn(httpReply(301, "", "Location: https://other.example/login\r\n")));
}

TEST_F(ConnectionFindingsTest, ErrorStatusIsToldApart) {
    EXPECT_EQ(reached() +
                  "error: endpoint: The answer is an error (status 404): there is no profiling "
                  "server at this address, or it fails. Server: other/1.0.\n" +
                  kOneError,
              reportOn(httpReply(404, "not found", "Server: other/1.0\r\n")));
}

TEST_F(ConnectionFindingsTest, ProxyInFrontOfTheServerIsToldApart) {
    EXPECT_EQ(reached() +
                  "error: endpoint: This is a proxy's answer (status 502), not the server's. The "
                  "agent would take it for the server's. Server: front/2.\n" +
                  kOneError,
              reportOn(httpReply(502, "<html></html>", "Server: front/2\r\n")));
}

TEST_F(ConnectionFindingsTest, RefusalByAnotherTextIsAWarning) {
    EXPECT_EQ(reached() +
                  "warning: endpoint: The message without token and type is refused (status 403) "
                  "by an answer that is no list of messages. An agent may be accepted all the "
                  "same.\n" +
                  kOneWarning,
              reportOn(httpReply(403, "forbidden")));
}

TEST_F(ConnectionFindingsTest, OtherTextIsNoListOfMessages) {
    EXPECT_EQ(reached() +
                  "error: endpoint: The answer (status 200) is no list of messages: the agent "
                  "would take it for a refusal.\n" +
                  kOneError,
              reportOn(httpReply(200, R"({"messages":"none"})")));
}

TEST_F(ConnectionFindingsTest, ClockThatIsFarOffIsAWarning) {
    const std::string report =
        reportOn(httpReply(200, kMessages, "Date: Wed, 01 Jan 2020 00:00:00 GMT\r\n"));

    EXPECT_NE(std::string::npos, report.find("warning: clock: Here it is 2")) << report;
    EXPECT_NE(std::string::npos,
              report.find(" UTC, there 2020-01-01 00:00:00 UTC. They differ by "))
        << report;
    EXPECT_NE(std::string::npos,
              report.find(" s: certificates may count as expired on one side only.\n"))
        << report;
}

TEST_F(ConnectionFindingsTest, ProxyThatWantsAPasswordIsToldApart) {
    RawServer proxy(answerWith(httpReply(407, "", "Via: 1.1 gate\r\n")));
    AgentLaunch checker = launchFor("http://192.0.2.1");
    checker.environment["http_proxy"] = "http://me:secret@" + proxy.host();

    const std::string report = replaced(runChecker(checker).output, proxy.host(), "PROXY");

    EXPECT_EQ(
        "warning: serverEndpoint: Plain HTTP to another host: everything, the access token too, "
        "can be read on the way to 192.0.2.1, and whoever can change it commands the agent.\n"
        "warning: http_proxy: Requests to 192.0.2.1 go through the proxy http://PROXY, and what "
        "the proxy answers counts as the server's answer.\n"
        "note: proxy: The way leads through the proxy http://PROXY, as http_proxy says.\n"
        "note: TCP: Connected to the proxy http://PROXY at PROXY.\n" +
            kPlain + kNoTime +
            "error: endpoint: The proxy wants a user name and a password (status 407). Via: 1.1 "
            "gate.\n1 error, 2 warnings.\n",
        report);
}

TEST_F(ConnectionFindingsTest, ProxyThatLetsNobodyThroughIsToldApart) {
    RawServer proxy([](RawConnection& connection) {
        (void)connection.readHead();
        (void)connection.send(httpReply(403, "no"));
    });
    AgentLaunch checker = launchFor("https://192.0.2.1");
    checker.environment["https_proxy"] = "http://" + proxy.host();

    const std::string report = replaced(runChecker(checker).output, proxy.host(), "PROXY");

    EXPECT_EQ(
        "warning: https_proxy: Requests to 192.0.2.1 go through the proxy http://PROXY, and what "
        "the proxy answers counts as the server's answer.\n"
        "error: proxy: The proxy does not let this connection through: it answers with status "
        "403.\n1 error, 1 warning.\n",
        report);
}

TEST_F(ConnectionFindingsTest, PortWhereNobodyListensIsToldApart) {
    const RefusingPort port;

    EXPECT_EQ("error: TCP: No connection can be made to PORT (WORDS).\n" + kOneError,
              withoutWords(replaced(runChecker(launchFor("http://" + port.host())).output,
                                    port.host(), "PORT")));
}

TEST_F(ConnectionFindingsTest, NameThatLeadsNowhereIsToldApart) {
    EXPECT_EQ("error: name: The name nowhere.invalid leads to no address (WORDS).\n" + kOneError,
              withoutWords(runChecker(launchFor("https://nowhere.invalid")).output));
}

TEST_F(ConnectionFindingsTest, ServerThatClosesIsToldApart) {
    EXPECT_EQ("error: endpoint: The connection ends without a whole answer (WORDS).\n" + kOneError,
              withoutWords(reportOn("")));
}

TEST_F(ConnectionFindingsTest, SilenceIsToldApart) {
    RawServer server([](RawConnection& connection) { connection.waitForPeerEnd(); });
    AgentLaunch plain = launchFor(server.endpoint());
    plain.moreArguments.insert(plain.moreArguments.end(), {"--seconds", "1"});

    EXPECT_EQ(
        "error: endpoint: The connection is accepted, and no answer comes within 1 s. The agent "
        "would wait for ever.\n" +
            kOneError,
        runChecker(plain).output);

    AgentLaunch encrypted = launchFor("https://" + server.host());
    encrypted.moreArguments.insert(encrypted.moreArguments.end(), {"--seconds", "1"});
    EXPECT_EQ(
        "error: TLS: The connection is accepted, and TLS does not begin within 1 s.\n" + kOneError,
        runChecker(encrypted).output);
}

TEST_F(ConnectionFindingsTest, PlainServerBehindAnEncryptedAddressIsToldApart) {
    RawServer server([](RawConnection& connection) {
        (void)connection.receive();
        (void)connection.send(httpReply(400, ""));
    });

    EXPECT_EQ("error: TLS: Whoever is reached does not speak TLS as the agent does (WORDS).\n" +
                  kOneError,
              withoutWords(runChecker(launchFor("https://" + server.host())).output));
}

struct BadCertificate {
    std::string name;
    ServerIdentity (Certificates::*identity)() const;
    std::string fault;
};

void PrintTo(const BadCertificate& certificate, std::ostream* stream) {
    *stream << certificate.name;
}

class BadCertificateTest : public ConnectionFindingsTest,
                           public testing::WithParamInterface<BadCertificate> {};

TEST_P(BadCertificateTest, IsAnErrorAndWithVerificationOffAWarning) {
    const Certificates certificates;
    bool tried = false;
    // The authority takes the place of the system's, so that only one thing is wrong.
    (void)runWithPrivateMounts([&] {
        ASSERT_EQ(0, ::mount(certificates.authorityFile().c_str(), kSystemAuthorities, nullptr,
                             MS_BIND, nullptr));
        tried = true;
        RawServer server(answerWith(httpReply(200, kMessages)),
                         (certificates.*GetParam().identity)());
        AgentSettings settings;
        settings.serverEndpoint = server.endpoint();
        const std::string reachedIt = "note: TCP: Connected to SERVER at SERVER.\n";
        const std::string answered =
            kNoTime + "note: endpoint: A profiling server answers (status 200).\n";
        const std::string fault =
            "The server's certificate does not prove who it is: " + GetParam().fault;

        const CheckerAnswer verified = runChecker(launch(settings));

        EXPECT_EQ("exited with 1", verified.ending);
        const auto reportOf = [&server](const CheckerAnswer& answer) {
            return withoutWords(replaced(answer.output, server.host(), "SERVER"));
        };
        EXPECT_EQ(reachedIt + "error: TLS: " + fault +
                      ". The agent refuses to talk to it (WORDS).\n" + answered + kOneError,
                  reportOf(verified));

        settings.serverCertificateName = "authority.pem";
        fs::copy_file(certificates.authorityFile(), installation.directory() / "authority.pem");
        const CheckerAnswer unverified = runChecker(launch(settings));

        EXPECT_EQ("exited with 0", unverified.ending);
        EXPECT_EQ(kVerificationOff + reachedIt + "warning: TLS: " + fault +
                      ". The agent talks to it all the same, because serverCertificateName is "
                      "set.\n" +
                      answered + "0 errors, 2 warnings.\n",
                  reportOf(unverified));
    });
    if (!tried) {
        GTEST_SKIP() << "no private mounts";
    }
}

std::string nameOfCase(const testing::TestParamInfo<BadCertificate>& caseInfo) {
    return caseInfo.param.name;
}

INSTANTIATE_TEST_SUITE_P(, BadCertificateTest,
                         testing::Values(BadCertificate{"SelfSigned", &Certificates::selfSigned,
                                                        "it is signed by itself, by no authority"},
                                         BadCertificate{"Expired", &Certificates::expired,
                                                        "it has expired, or a clock is wrong"},
                                         BadCertificate{
                                             "OtherHost", &Certificates::otherHost,
                                             "it was made for another host name or address"}),
                         nameOfCase);

TEST_F(ConnectionFindingsTest, UnknownAuthorityIsToldApart) {
    const Certificates certificates;
    RawServer server(answerWith(httpReply(200, kMessages)), certificates.valid());

    EXPECT_EQ(
        "note: TCP: Connected to SERVER at SERVER.\n"
        "error: TLS: The server's certificate does not prove who it is: it comes from an authority "
        "that this machine does not know, or the server leaves out a certificate in between. The "
        "agent refuses to talk to it (WORDS).\n" +
            kNoTime + "note: endpoint: A profiling server answers (status 200).\n" + kOneError,
        withoutWords(
            replaced(runChecker(launchFor(server.endpoint())).output, server.host(), "SERVER")));
}

TEST_F(ConnectionFindingsTest, GoodCertificateIsToldAndMakesTheSettingNeedless) {
    const Certificates certificates;
    bool tried = false;
    (void)runWithPrivateMounts([&] {
        ASSERT_EQ(0, ::mount(certificates.authorityFile().c_str(), kSystemAuthorities, nullptr,
                             MS_BIND, nullptr));
        tried = true;
        RawServer server(answerWith(httpReply(200, kMessages)), certificates.valid());
        AgentSettings settings;
        settings.serverEndpoint = server.endpoint();
        const std::string proof =
            "note: TCP: Connected to SERVER at SERVER.\n"
            "note: TLS: The server has proved who it is to the authorities of this machine.";
        const std::string answered =
            kNoTime + "note: endpoint: A profiling server answers (status 200).\n";

        EXPECT_EQ(proof + "\n" + answered + kNoFaults,
                  replaced(runChecker(launch(settings)).output, server.host(), "SERVER"));

        settings.serverCertificateName = "authority.pem";
        fs::copy_file(certificates.authorityFile(), installation.directory() / "authority.pem");
        EXPECT_EQ(kVerificationOff + proof +
                      " The agent does not ask for that proof while serverCertificateName is set; "
                      "the setting is not needed.\n" +
                      answered + kOneWarning,
                  replaced(runChecker(launch(settings)).output, server.host(), "SERVER"));
    });
    if (!tried) {
        GTEST_SKIP() << "no private mounts";
    }
}

}  // namespace
}  // namespace kolvan::test
