#include "companions/profiler/machine/ProcessJson.h"
#include "companions/profiler/machine/ProcessTable.h"
#include "companions/profiler/machine/TextLayout.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <string>
#include <vector>

namespace kolvan::test {

namespace {

using profiler::Access;
using profiler::ProcessEntry;
using profiler::processJson;
using profiler::processTable;
using Engine = Access::Engine;

const std::vector<ProcessEntry>& threeProcesses() {
    static const std::vector<ProcessEntry> processes{
        {4711, "build", "/usr/bin/worker --all", 187.26, 12, {Engine::Perf, "", ""}},
        {815, "build", "shell", 0.04, 1, {Engine::Ptrace, "by stops", "a setting"}},
        {1, "root", "/sbin/init", 0, 1, {Engine::None, "it is another user's", "root"}}};
    return processes;
}

ProcessEntry hostileProcess() {
    return {7, "us\x1B[2Jer", "a\nb\x1B]0;title\x07 \xC2\x9B \xFF \"quoted\"", 0, 1, {}};
}

}  // namespace

TEST(ProcessTableTest, WhatIsMissingIsSaidOnceBelow) {
    std::vector<ProcessEntry> processes = threeProcesses();
    processes.push_back(processes.back());
    processes.back().pid = 2;

    EXPECT_EQ(R"(    PID  User   CPU %  Threads  Profile    Command
   4711  build  187.3       12  yes        /usr/bin/worker --all
    815  build    0.0        1  stops (1)  shell
      1  root     0.0        1  no (2)     /sbin/init
      2  root     0.0        1  no (2)     /sbin/init

4 processes; this user can profile 2 of them.
 (1) by stops. What helps: a setting.
 (2) it is another user's. What helps: root.
)",
              processTable(processes, 80));
}

TEST(ProcessTableTest, CommandsAreCutToTheWidth) {
    std::vector<ProcessEntry> processes = threeProcesses();
    processes[0].command = std::string(1000, 'a') + " last";
    const std::string narrow = processTable(processes, 80);
    const std::string wide = processTable(processes, 200);

    EXPECT_EQ(80U, narrow.find('\n', narrow.find("4711")) - narrow.find("   4711"));
    EXPECT_EQ(200U, wide.find('\n', wide.find("4711")) - wide.find("   4711"));
    EXPECT_NE(std::string::npos, narrow.find("aaa...aaa"));
    EXPECT_NE(std::string::npos, narrow.find(" last\n"));
}

TEST(ProcessTableTest, CharactersOfSeveralBytesTakeOneColumn) {
    std::string command = "/bin/m";
    for (int i = 0; i < 100; ++i) {
        command += "ü";
    }
    const std::string text =
        processTable({{4711, "zoë", command, 0, 1, {Engine::Perf, "", ""}}}, 80);

    EXPECT_TRUE(text.starts_with("    PID  User  CPU %")) << text;
    const std::string line = text.substr(text.find("   4711"));
    EXPECT_EQ(80U, profiler::characterCount(line.substr(0, line.find('\n')))) << line;
}

TEST(ProcessTableTest, ANarrowTerminalStillShowsSomeOfTheCommand) {
    EXPECT_NE(std::string::npos, processTable(threeProcesses(), 10).find("/usr/bin"));
}

TEST(ProcessTableTest, NothingControlsTheTerminal) {
    const std::string text = processTable({hostileProcess()}, 200);

    for (const char byte : text) {
        EXPECT_TRUE(byte == '\n' || static_cast<unsigned char>(byte) >= 0x20);
    }
    EXPECT_EQ(std::string::npos, text.find("\xC2\x9B"));
    EXPECT_EQ(std::string::npos, text.find('\xFF'));
}

TEST(ProcessTableTest, NoProcessIsNoLine) {
    EXPECT_EQ(
        "    PID  User  CPU %  Threads  Profile    Command\n\n"
        "0 processes; this user can profile 0 of them.\n",
        processTable({}, 80));
}

TEST(ProcessJsonTest, EveryProcessIsAnObjectOnALine) {
    EXPECT_EQ(
        R"([
{"pid":4711,"user":"build","command":"/usr/bin/worker --all","cpu":187.3,"threads":12,"profilable":true,"engine":"perf","reason":"","help":""},
{"pid":815,"user":"build","command":"shell","cpu":0.0,"threads":1,"profilable":true,"engine":"ptrace","reason":"by stops","help":"a setting"},
{"pid":1,"user":"root","command":"/sbin/init","cpu":0.0,"threads":1,"profilable":false,"engine":"none","reason":"it is another user's","help":"root"}
]
)",
        processJson(threeProcesses()));
    EXPECT_EQ("[\n]\n", processJson({}));
}

TEST(ProcessJsonTest, AnyBytesAreValidJson) {
    const std::string text = processJson({hostileProcess()});

    rapidjson::Document list;
    list.Parse<rapidjson::kParseValidateEncodingFlag>(text.c_str());
    ASSERT_FALSE(list.HasParseError()) << text;
    EXPECT_STREQ("us\x1B[2Jer", list[0]["user"].GetString());
    EXPECT_STREQ("a\nb\x1B]0;title\x07 \xC2\x9B \xEF\xBF\xBD \"quoted\"",
                 list[0]["command"].GetString());
    // Written out for a terminal, the JSON cannot control it either.
    EXPECT_EQ(std::string::npos, text.find('\x1B'));
}

}  // namespace kolvan::test
