#include "companions/profiler/machine/ProcessList.h"

#include "companions/profiler/machine/TextLayout.h"
#include "tests/profiler/engine/FixtureProcess.h"
#include "tests/profiler/support/Program.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <string>
#include <vector>

#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::test {

namespace {

using namespace std::chrono_literals;
using profiler::Access;
using profiler::listProcesses;
using profiler::ProcessEntry;

const ProcessEntry* find(const std::vector<ProcessEntry>& processes, pid_t pid) {
    const auto found = std::find_if(processes.begin(), processes.end(),
                                    [&](const auto& process) { return process.pid == pid; });
    return found == processes.end() ? nullptr : &*found;
}

}  // namespace

TEST(ProcessListTest, AProcessIsDescribed) {
    FixtureProcess fixture({"spin", "2"});

    const auto processes = listProcesses(250ms);

    const ProcessEntry* const entry = find(processes, fixture.id());
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(profiler::userName(::geteuid()), entry->user);
    EXPECT_EQ(std::string(KOLVAN_ENGINE_FIXTURE) + " spin 2", entry->command);
    EXPECT_EQ(3U, entry->threads);
    EXPECT_LT(0, entry->cpu);
    EXPECT_GT(100.0 * static_cast<double>(::sysconf(_SC_NPROCESSORS_ONLN)) + 10, entry->cpu);
    EXPECT_EQ(Access::Engine::Perf, entry->access.engine);
}

TEST(ProcessListTest, TheBusiestComeFirstAndThisProcessIsLeftOut) {
    FixtureProcess idle({"burn", "1", "1"});
    FixtureProcess busy({"spin", "2"});

    const auto processes = listProcesses(250ms);

    EXPECT_EQ(nullptr, find(processes, ::getpid()));
    const ProcessEntry* const first = find(processes, busy.id());
    const ProcessEntry* const second = find(processes, idle.id());
    ASSERT_NE(nullptr, first);
    ASSERT_NE(nullptr, second);
    EXPECT_LT(first, second);
    EXPECT_TRUE(
        std::is_sorted(processes.begin(), processes.end(), [](const auto& one, const auto& other) {
            return one.access.engine != Access::Engine::None &&
                   other.access.engine == Access::Engine::None;
        }));
}

TEST(ProcessListTest, WhatHasEndedAndTheKernelsThreadsAreLeftOut) {
    FixtureProcess fixture({"spin", "1"});
    fixture.closeInput();
    siginfo_t info{};
    ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(fixture.id()), &info, WEXITED | WNOWAIT));

    const auto processes = listProcesses(1ms);

    EXPECT_EQ(nullptr, find(processes, fixture.id()));
    EXPECT_EQ(nullptr, find(processes, 2));
}

TEST(ProcessListTest, TheProgramWritesJsonIntoAPipe) {
    FixtureProcess fixture({"spin", "1"});
    Program program({"--list-processes"});
    EXPECT_EQ(0, program.finish());

    rapidjson::Document list;
    list.Parse<rapidjson::kParseValidateEncodingFlag>(program.output().c_str());
    ASSERT_FALSE(list.HasParseError()) << program.output();
    const auto entry = std::find_if(list.Begin(), list.End(), [&](const rapidjson::Value& process) {
        return process["pid"].GetInt() == fixture.id();
    });
    ASSERT_NE(list.End(), entry);
    EXPECT_EQ(std::string(KOLVAN_ENGINE_FIXTURE) + " spin 1", (*entry)["command"].GetString());
    EXPECT_TRUE((*entry)["profilable"].GetBool());
    EXPECT_STREQ("perf", (*entry)["engine"].GetString());
    EXPECT_EQ(2, (*entry)["threads"].GetInt());
}

TEST(ProcessListTest, TheProgramDrawsATableOnATerminal) {
    constexpr winsize kSize{24, 80, 0, 0};
    int master = -1;
    const pid_t child = ::forkpty(&master, nullptr, nullptr, &kSize);
    ASSERT_LE(0, child);
    if (child == 0) {
        (void)::execl(KOLVAN_TRCAP_PATH, "kolvan-trcap", "--list-processes", nullptr);
        ::_exit(1);
    }
    const profiler::FileDescriptor end(master);
    std::string text;
    std::array<char, 4096> bytes{};
    for (ssize_t count = 0; (count = ::read(master, bytes.data(), bytes.size())) > 0;) {
        text.append(bytes.data(), static_cast<std::size_t>(count));
    }
    int status = 0;
    (void)::waitpid(child, &status, 0);

    EXPECT_EQ(0, status);
    EXPECT_TRUE(text.starts_with("    PID  User")) << text;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t lineEnd = text.find("\r\n", begin);
        ASSERT_NE(std::string::npos, lineEnd);
        const std::string line = text.substr(begin, lineEnd - begin);
        EXPECT_GE(80U, profiler::characterCount(line)) << line;
        begin = lineEnd + 2;
    }
}

}  // namespace kolvan::test
