#include "companions/server/cli/Options.h"

#include "companions/server/cli/ListenAddress.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace kolvan::server {
namespace {

Options read(const std::vector<std::string>& arguments) {
    std::vector<const char*> words = {"kolvan-server"};
    for (const std::string& argument : arguments) {
        words.push_back(argument.c_str());
    }
    return readOptions(static_cast<int>(words.size()), words.data());
}

std::string refusal(const std::vector<std::string>& arguments) {
    try {
        (void)read(arguments);
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "nothing refused";
}

TEST(OptionsTest, WithoutAnythingItServesOnThisMachineAlone) {
    const Options options = read({});

    EXPECT_TRUE(std::holds_alternative<Serve>(options.command));
    EXPECT_EQ("127.0.0.1", options.address);
    EXPECT_EQ(8470, options.port);
    EXPECT_EQ("", options.data);
    EXPECT_EQ("", options.publicUrl);
}

TEST(OptionsTest, EachOptionIsRead) {
    const Options options = read({"--data", "/d", "--listen", "0.0.0.0:0", "--certificate", "/c",
                                  "--key", "/k", "--public-url", "https://profiling.example/"});

    EXPECT_EQ("/d", options.data);
    EXPECT_EQ("0.0.0.0", options.address);
    EXPECT_EQ(0, options.port);
    EXPECT_EQ("/c", options.certificate);
    EXPECT_EQ("/k", options.key);
    EXPECT_EQ("https://profiling.example", options.publicUrl);
}

TEST(OptionsTest, ConfigurationFileIsReadAndTheCommandLineCountsMore) {
    const test::TemporaryDirectory directory;
    const std::string file = directory.write("c",
                                             "# where it lives\n"
                                             "data = \"/from the file\"\n"
                                             "listen = \"127.0.0.1:1\"\n"
                                             "without-tls = true\n");

    const Options options = read({"--config", file, "--listen", "0.0.0.0:2", "user", "list"});

    EXPECT_EQ("/from the file", options.data);
    EXPECT_EQ("0.0.0.0", options.address);
    EXPECT_EQ(2, options.port);
    EXPECT_TRUE(std::holds_alternative<ListUsers>(options.command));
}

TEST(OptionsTest, UnknownLineOfTheConfigurationFileIsRefused) {
    const test::TemporaryDirectory directory;

    EXPECT_THAT(refusal({"--config", directory.write("c", "lissten = \"x\"\n")}),
                testing::HasSubstr("lissten"));
    EXPECT_THAT(refusal({"--config", directory.entry("none")}), testing::HasSubstr("none"));
}

TEST(OptionsTest, CommandsAreReadWithTheirArguments) {
    const auto add = std::get<AddUser>(read({"user", "add", "anna", "--role", "viewer"}).command);
    EXPECT_EQ("anna", add.name);
    EXPECT_EQ(Role::Viewer, add.role);
    EXPECT_FALSE(add.passwordFromInput);
    EXPECT_TRUE(
        std::get<AddUser>(
            read({"user", "add", "anna", "--role", "administrator", "--password-stdin"}).command)
            .passwordFromInput);
    EXPECT_EQ("anna", std::get<SetPassword>(read({"user", "password", "anna"}).command).name);
    EXPECT_EQ("anna", std::get<RemoveUser>(read({"user", "remove", "anna"}).command).name);

    EXPECT_EQ(Role::Engineer, std::get<AddToken>(read({"token", "add", "ci"}).command).role);
    EXPECT_EQ(Role::Viewer,
              std::get<AddToken>(read({"token", "add", "ci", "--role", "viewer"}).command).role);
    EXPECT_EQ("ci", std::get<RevokeToken>(read({"token", "revoke", "ci"}).command).name);
    EXPECT_TRUE(std::holds_alternative<ListTokens>(read({"token", "list"}).command));

    EXPECT_FALSE(std::get<AddAgentToken>(read({"agent-token", "add", "web"}).command).shared);
    EXPECT_TRUE(
        std::get<AddAgentToken>(read({"agent-token", "add", "web", "--shared"}).command).shared);
    EXPECT_EQ("web",
              std::get<RevokeAgentToken>(read({"agent-token", "revoke", "web"}).command).name);
    EXPECT_TRUE(std::holds_alternative<ListAgentTokens>(read({"agent-token", "list"}).command));

    const auto package = std::get<AddPackage>(read({"package", "add", "x86", "a.tar"}).command);
    EXPECT_EQ(PackageArchitecture::X86, package.architecture);
    EXPECT_EQ("a.tar", package.archive);
    EXPECT_TRUE(std::holds_alternative<ListPackages>(read({"package", "list"}).command));
    EXPECT_EQ("b", std::get<BackUp>(read({"backup", "b"}).command).file);
}

TEST(OptionsTest, OptionsMayStandBehindTheCommand) {
    const Options options = read({"user", "list", "--data", "/d"});

    EXPECT_EQ("/d", options.data);
}

TEST(OptionsTest, WhatIsMissingOrUnknownIsNamed) {
    // The sentences are the library's, and change with its version.
    EXPECT_THAT(refusal({"user", "add", "anna"}), testing::HasSubstr("--role"));
    EXPECT_THAT(refusal({"token", "add"}), testing::HasSubstr("NAME"));
    EXPECT_NE("nothing refused", refusal({"user"}));
    EXPECT_THAT(refusal({"user", "add", "anna", "--role", "king"}), testing::HasSubstr("king"));
    EXPECT_THAT(refusal({"package", "add", "arm", "a"}), testing::HasSubstr("arm"));
    EXPECT_THAT(refusal({"--nonsense"}), testing::HasSubstr("--nonsense"));
    EXPECT_THAT(refusal({"nonsense"}), testing::HasSubstr("nonsense"));
}

TEST(OptionsTest, CertificateAndKeyGoTogether) {
    EXPECT_EQ("--certificate and --key go together", refusal({"--certificate", "/c"}));
    EXPECT_EQ("--certificate and --key go together", refusal({"--key", "/k"}));
}

TEST(OptionsTest, OtherMachinesTakeTlsOrAWord) {
    EXPECT_EQ(
        "Listening on 0.0.0.0 without TLS shows passwords, tokens and profiles to whoever is in "
        "between: give --certificate and --key, or say --without-tls when something in front "
        "speaks "
        "TLS",
        refusal({"--listen", "0.0.0.0:80"}));
    EXPECT_NE("nothing refused", refusal({"--listen", "[::]:80"}));
    EXPECT_EQ("nothing refused", refusal({"--listen", "0.0.0.0:80", "--without-tls"}));
    EXPECT_EQ("nothing refused",
              refusal({"--listen", "0.0.0.0:80", "--certificate", "c", "--key", "k"}));
    EXPECT_EQ("nothing refused", refusal({"--listen", "127.7.7.7:80"}));
    EXPECT_EQ("nothing refused", refusal({"--listen", "[::1]:80"}));
    EXPECT_EQ("nothing refused", refusal({"--listen", "localhost:80"}));
}

TEST(OptionsTest, AddressThatIsNoneIsRefused) {
    for (const char* const text :
         {"8470", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:-1", "127.0.0.1:1x",
          "::1:80", "[127.0.0.1]:80", "example.com:80", ":80", "[]:80", "127.0.0.1 :80"}) {
        EXPECT_EQ("'" + std::string(text) +
                      "' is not of the form ADDRESS:PORT, such as 127.0.0.1:8470, [::1]:8470 or "
                      "0.0.0.0:8470",
                  refusal({"--listen", text}));
    }
    EXPECT_EQ(65535, readListenAddress("127.0.0.1:65535").port);
    EXPECT_EQ("::1", readListenAddress("[::1]:1").address);
}

TEST(OptionsTest, PublicUrlIsOneOfTheWeb) {
    EXPECT_EQ("--public-url: 'example.com' does not begin with http:// or https:// and a name",
              refusal({"--public-url", "example.com"}));
    EXPECT_NE("nothing refused", refusal({"--public-url", "https://"}));
    EXPECT_EQ("http://a/profiling", read({"--public-url", "http://a/profiling//"}).publicUrl);
}

TEST(OptionsTest, HelpShowsEveryCommand) {
    const std::string help = std::get<ShowText>(read({"--help"}).command).text;

    for (const char* const word :
         {"--data", "--listen", "--certificate", "--key", "--public-url", "--config",
          "--without-tls", "--version", "user", "password", "remove", "token", "agent-token",
          "revoke", "package", "backup"}) {
        EXPECT_THAT(help, testing::HasSubstr(word));
    }
    EXPECT_THAT(std::get<ShowText>(read({"user", "add", "--help"}).command).text,
                testing::HasSubstr("--password-stdin"));
}

}  // namespace
}  // namespace kolvan::server
