#include "tests/companions/check/CheckerRun.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

AgentSettings healthy() {
    AgentSettings settings;
    settings.serverEndpoint = "http://127.0.0.1:8080";
    return settings;
}

void configure(const AgentInstallation& installation, const std::string& text) {
    installation.configure(text);
    fs::permissions(installation.configurationFile(),
                    fs::perms::owner_read | fs::perms::owner_write);
}

CheckerAnswer answerTo(const AgentInstallation& installation,
                       const std::vector<std::string>& arguments) {
    return runChecker(checkerLaunch(installation, arguments));
}

TEST(CommandLineTest, HealthySetUpGivesNothingToSay) {
    const AgentInstallation installation("agent with blanks");
    configure(installation, healthy().text());

    const CheckerAnswer answer = answerTo(installation, {installation.directory()});

    EXPECT_EQ("exited with 0", answer.ending);
    EXPECT_EQ("Nothing to say.\n", answer.output);
    EXPECT_EQ("", answer.errors);
}

TEST(CommandLineTest, CheckerLeavesNothingBehind) {
    const AgentInstallation installation;
    configure(installation, healthy().text());
    const auto before = installation.leftFiles();

    (void)answerTo(installation, {installation.directory()});

    EXPECT_EQ(before, installation.leftFiles());
}

TEST(CommandLineTest, ConfigurationMayBeNamedAlone) {
    const AgentInstallation installation;
    const fs::path other = installation.directory() / "draft.json";
    configure(installation, healthy().text());
    fs::copy_file(installation.configurationFile(), other);

    const CheckerAnswer answer = answerTo(installation, {"--config", "draft.json"});

    EXPECT_EQ("exited with 0", answer.ending);
    EXPECT_EQ("Nothing to say.\n", answer.output);
}

TEST(CommandLineTest, WithoutADirectoryTheAgentBesideTheCheckerCounts) {
    const AgentInstallation installation;
    configure(installation, "[]");
    AgentLaunch launch = checkerLaunch(installation, {});
    const fs::path beside = installation.directory() / "kolvan-agent-check";
    fs::copy_file(launch.program, beside);
    launch.program = beside;

    const CheckerAnswer answer = runChecker(launch);

    EXPECT_EQ("exited with 1", answer.ending);
    EXPECT_EQ("error: " + installation.configurationFile().string() + ":1:1: ",
              answer.output.substr(0, installation.configurationFile().string().size() + 13));
}

TEST(CommandLineTest, InAPackageTheAgentAboveTheCheckersDirectoryCounts) {
    const AgentInstallation installation;
    configure(installation, "[]");
    AgentLaunch launch = checkerLaunch(installation, {});
    const fs::path programs = installation.directory() / "bin";
    fs::create_directory(programs);
    std::ofstream(programs / "kolvan-agent") << "#!/bin/sh\n";
    fs::copy_file(launch.program, programs / "kolvan-agent-check");
    launch.program = programs / "kolvan-agent-check";

    const CheckerAnswer answer = runChecker(launch);

    EXPECT_EQ("exited with 1", answer.ending);
    EXPECT_EQ("error: " + installation.configurationFile().string() + ":1:1: ",
              answer.output.substr(0, installation.configurationFile().string().size() + 13));
}

TEST(CommandLineTest, JsonReportHasEveryPartOfAFinding) {
    const AgentInstallation installation;
    configure(installation,
              replaced(healthy().text(), "\"buildVersion\"", "\n \"build\\tVersion\""));

    const CheckerAnswer answer = answerTo(installation, {"--json", installation.directory()});

    EXPECT_EQ("exited with 0", answer.ending);
    rapidjson::Document report;
    report.Parse(answer.output.c_str());
    ASSERT_FALSE(report.HasParseError());
    EXPECT_EQ(0, report["errors"].GetInt());
    EXPECT_EQ(1, report["warnings"].GetInt());
    ASSERT_EQ(1U, report["findings"].Size());
    const auto& finding = report["findings"][0];
    EXPECT_STREQ("warning", finding["severity"].GetString());
    EXPECT_STREQ("unknown-key", finding["topic"].GetString());
    EXPECT_EQ(installation.configurationFile().string(), finding["subject"].GetString());
    EXPECT_EQ(2, finding["line"].GetInt());
    EXPECT_EQ(2, finding["column"].GetInt());
    EXPECT_STREQ(
        "\"build\tVersion\" is no setting, and the agent ignores it. Did you mean "
        "\"buildVersion\"?",
        finding["text"].GetString());
}

TEST(CommandLineTest, ControlCharactersDoNotReachTheTerminal) {
    const AgentInstallation installation;
    configure(installation,
              replaced(healthy().text(), "\"buildVersion\"", "\"\\u001B[2J long and unknown\""));

    const CheckerAnswer answer = answerTo(installation, {installation.directory()});

    EXPECT_EQ("warning: " + installation.configurationFile().string() +
                  ":1:99: \"\\x1B[2J long and unknown\" is no setting, and the agent ignores it.\n"
                  "0 errors, 1 warning.\n",
              answer.output);
}

TEST(CommandLineTest, WrongUseIsToldApart) {
    const AgentInstallation installation;
    const std::vector<std::vector<std::string>> wrong{
        {"--unknown"},          {"--alive", "x"},      {"--alive", "0"},   {"a", "b"},
        {"a", "--config", "b"}, {"--alive", "1", "a"}, {"--seconds", "0"}, {"--config"},
    };
    for (const std::vector<std::string>& arguments : wrong) {
        const CheckerAnswer answer = answerTo(installation, arguments);

        EXPECT_EQ("exited with 2", answer.ending) << testing::PrintToString(arguments);
        EXPECT_EQ("", answer.output) << testing::PrintToString(arguments);
        EXPECT_TRUE(answer.errors.starts_with("kolvan-agent-check: ")) << answer.errors;
        EXPECT_TRUE(answer.errors.ends_with("\nTry --help.\n")) << answer.errors;
    }
}

TEST(CommandLineTest, DirectoryThatIsMissingCannotBeLookedAt) {
    const AgentInstallation installation;

    const CheckerAnswer answer = answerTo(installation, {"missing"});

    EXPECT_EQ("exited with 2", answer.ending);
    EXPECT_EQ("kolvan-agent-check: missing is no directory\n", answer.errors);
}

TEST(CommandLineTest, VersionNamesTheBuildOfTheAgent) {
    const AgentInstallation installation;
    const std::string home = installation.directory();
    const CheckerAnswer answer = answerTo(installation, {"--version", home});

    EXPECT_EQ("exited with 0", answer.ending);
    const std::string own = "kolvan-agent-check ";
    ASSERT_TRUE(answer.output.starts_with(own)) << answer.output;
    EXPECT_NE(std::string::npos, std::string("123456789").find(answer.output[own.size()]));
    // The linker's own report of what it has put there.
    const std::string notes = installation.surroundings().entry("notes");
    ASSERT_EQ(0, std::system(("readelf -n '" + home + "/kolvan-agent' >'" + notes + "'").c_str()));
    const std::string reported = readFile(notes);
    const std::string label = "Build ID: ";
    const std::size_t at = reported.find(label);
    const std::string build =
        at == std::string::npos
            ? "which build it is cannot be told"
            : "build " +
                  reported.substr(at + label.size(), reported.find('\n', at) - at - label.size());
    EXPECT_EQ("kolvan-agent in " + home + ": " + build + "\n",
              answer.output.substr(answer.output.find('\n') + 1));
}

TEST(CommandLineTest, VersionOfNoAgentOrAnotherFileIsNotInvented) {
    const AgentInstallation installation;
    fs::remove(installation.program());
    const std::string home = installation.directory();
    const auto saidOfTheAgent = [&] {
        const std::string output = answerTo(installation, {"--version", home}).output;
        return output.substr(output.find('\n') + 1);
    };

    EXPECT_EQ("kolvan-agent in " + home + ": there is none\n", saidOfTheAgent());
    std::ofstream(installation.program()) << "#!/bin/sh\n";
    EXPECT_EQ("kolvan-agent in " + home + ": which build it is cannot be told\n", saidOfTheAgent());
    std::ofstream(installation.program()) << "\177ELF\2\1\1";
    EXPECT_EQ("kolvan-agent in " + home + ": which build it is cannot be told\n", saidOfTheAgent());
}

TEST(CommandLineTest, HelpNamesEveryOption) {
    const AgentInstallation installation;

    const CheckerAnswer answer = answerTo(installation, {"--help"});

    EXPECT_EQ("exited with 0", answer.ending);
    for (const char* option : {"DIRECTORY", "--config FILE", "--connect", "--alive PID",
                               "--seconds N", "--json", "--version", "--help", "Exit status"}) {
        EXPECT_NE(std::string::npos, answer.output.find(option)) << option;
    }
}

}  // namespace
}  // namespace kolvan::test
