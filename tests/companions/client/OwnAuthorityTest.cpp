// The program and a server whose certificate is signed by an authority that nobody else knows.

#include "tests/companions/client/KolvanRun.h"
#include "tests/companions/server/support/ServerScene.h"
#include "tests/support/Certificates.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include <fcntl.h>

namespace kolvan::client::test {
namespace {

using kolvan::test::Certificates;
using kolvan::test::ServerIdentity;
using kolvan::test::ServerScene;
using kolvan::test::TemporaryDirectory;
using server::http::Awaitable;
using server::http::jsonResponse;
using server::http::Request;
using server::http::Response;
using testing::HasSubstr;

class OwnAuthorityTest : public testing::Test {
protected:
    OwnAuthorityTest() {
        const ServerIdentity identity = certificates.valid();
        scene.settings.identity =
            std::make_shared<server::http::TlsIdentity>(identity.certificateFile, identity.keyFile);
        answer("/api/v1/session", R"({"name":"ada","role":"engineer"})");
        answer("/api/v1/agents", R"({"items":[],"next":null})");
        scene.start();
    }

    void answer(const std::string& path, const std::string& json) {
        scene.router.add("GET", path,
                         [json](Request&) -> Awaitable<Response> { co_return jsonResponse(json); });
    }

    std::string url() const { return "https://127.0.0.1:" + std::to_string(scene.port()); }

    KolvanRun::Environment environment() const {
        return {{"KOLVAN_SERVER", url()}, {"KOLVAN_TOKEN", "kst_one"}};
    }

    const Certificates certificates;
    const std::string authority = certificates.authorityFile();
    const TemporaryDirectory home;
    ServerScene scene;
};

TEST_F(OwnAuthorityTest, ServerOfAnUnknownAuthorityIsNotSpokenToAndTheWayOutIsTold) {
    KolvanRun kolvan(home, {"agents"}, environment());

    EXPECT_EQ(1, kolvan.wait());
    EXPECT_THAT(kolvan.errors(), HasSubstr("kolvan: The server " + url() + " cannot be reached: "));
    EXPECT_THAT(kolvan.errors(),
                HasSubstr(" With an authority of your own, --ca FILE names its certificate.\n"));
}

TEST_F(OwnAuthorityTest, OptionAndEnvironmentNameTheAuthority) {
    KolvanRun byOption(home, {"agents", "--ca", authority}, environment());
    EXPECT_EQ(0, byOption.wait()) << byOption.errors();

    KolvanRun::Environment named = environment();
    named["KOLVAN_CA"] = authority;
    KolvanRun byEnvironment(home, {"agents"}, named);
    EXPECT_EQ(0, byEnvironment.wait()) << byEnvironment.errors();
}

TEST_F(OwnAuthorityTest, OptionGoesBeforeTheEnvironment) {
    const Certificates other;
    KolvanRun::Environment named = environment();
    named["KOLVAN_CA"] = authority;

    KolvanRun kolvan(home, {"agents", "--ca", other.authorityFile()}, named);

    EXPECT_EQ(1, kolvan.wait());
}

TEST_F(OwnAuthorityTest, LoginKeepsIt) {
    const basekit2::UniqueFd input(
        ::open(home.write("input", "kst_one\n").c_str(), O_RDONLY | O_CLOEXEC));
    KolvanRun login(home, {"login", url(), "--ca", authority}, {}, input);
    ASSERT_EQ(0, login.wait()) << login.errors();
    EXPECT_EQ("{\n  \"server\": \"" + url() + "\",\n  \"token\": \"kst_one\",\n  \"ca\": \"" +
                  authority + "\"\n}\n",
              kolvan::test::readFile(home.path() / ".config/kolvan/config.json"));

    KolvanRun kept(home, {"agents"});
    EXPECT_EQ(0, kept.wait()) << kept.errors();
}

TEST_F(OwnAuthorityTest, AuthorityIsTrustedInsteadOfAnyOther) {
    const Certificates other;

    KolvanRun kolvan(home, {"agents", "--ca", other.authorityFile()}, environment());

    EXPECT_EQ(1, kolvan.wait());
    EXPECT_THAT(kolvan.errors(), HasSubstr("cannot be reached"));
}

TEST_F(OwnAuthorityTest, FileThatIsNoneIsToldByItsName) {
    for (const std::string& file : {home.entry("missing.pem"), home.write("text.pem", "text\n")}) {
        KolvanRun kolvan(home, {"agents", "--ca", file}, environment());

        EXPECT_EQ(1, kolvan.wait());
        EXPECT_EQ("kolvan: The certificates of authorities in " + file +
                      " cannot be read: is it a file in the format PEM?\n",
                  kolvan.errors());
    }
}

}  // namespace
}  // namespace kolvan::client::test
