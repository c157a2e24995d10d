#include "companions/profiler/engine/Tasks.h"

#include "companions/profiler/base/WholeFile.h"
#include "tests/profiler/engine/FixtureProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>

#include <sys/prctl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace kolvan::test {

using profiler::CodeMapping;
using profiler::parseMapping;

// As the file of a process that has gone after it was opened.
TEST(WholeFileTest, FileThatCannotBeReadIsEmpty) {
    EXPECT_EQ("", profiler::wholeFile("/proc/self/mem"));
    EXPECT_EQ("", profiler::wholeFile("/proc/self/nowhere"));
    EXPECT_EQ(profiler::nameOf(::getpid(), ::getpid()) + "\n",
              profiler::wholeFile("/proc/self/comm"));
}

TEST(TasksTest, AMappingOfAFileIsUnderstood) {
    CodeMapping mapping;

    ASSERT_TRUE(parseMapping(
        "7f12e4c28000-7f12e4d7d000 r-xp 00026000 fe:01 1835082                    /usr/lib/libc.so",
        mapping));

    EXPECT_EQ(0x7f12e4c28000U, mapping.begin);
    EXPECT_EQ(0x7f12e4d7d000U, mapping.end);
    EXPECT_EQ(0x26000U, mapping.fileOffset);
    EXPECT_EQ(makedev(0xfe, 1), mapping.device);
    EXPECT_EQ(1835082U, mapping.inode);
    EXPECT_EQ("/usr/lib/libc.so", mapping.path);
}

TEST(TasksTest, BlanksAndADeletedFileAreKeptInAPath) {
    CodeMapping mapping;

    ASSERT_TRUE(parseMapping("1000-2000 r-xp 00000000 08:01 5    /a  b/c d  (deleted)", mapping));

    EXPECT_EQ("/a  b/c d  (deleted)", mapping.path);
}

TEST(TasksTest, AnEscapedLineFeedInAPathIsALineFeed) {
    CodeMapping mapping;

    ASSERT_TRUE(parseMapping("1000-2000 r-xp 00000000 08:01 5 /a\\012b\\012/c\\0", mapping));

    EXPECT_EQ("/a\nb\n/c\\0", mapping.path);
}

TEST(TasksTest, MemoryWithoutAFileIsNamedAsTheKernelNamesIt) {
    CodeMapping anonymous;
    CodeMapping vdso;

    ASSERT_TRUE(parseMapping("1000-2000 rwxp 00000000 00:00 0 ", anonymous));
    ASSERT_TRUE(parseMapping("7ffc1000-7ffc3000 r-xp 00000000 00:00 0       [vdso]", vdso));

    EXPECT_EQ("//anon", anonymous.path);
    EXPECT_EQ("[vdso]", vdso.path);
}

TEST(TasksTest, HighAddressesAreUnderstood) {
    CodeMapping mapping;

    ASSERT_TRUE(parseMapping("ffffffffff600000-ffffffffff601000 --xp 00000000 00:00 0   [vsyscall]",
                             mapping));

    EXPECT_EQ(0xffffffffff600000U, mapping.begin);
    EXPECT_EQ(0xffffffffff601000U, mapping.end);
}

TEST(TasksTest, WhatIsNoCodeOrNoMappingIsPassedOver) {
    for (const std::string line :
         {"", "1000-2000 rw-p 00000000 08:01 5 /a", "1000-2000 r--p 00000000 08:01 5 /a",
          "1000-2000 r-xp 00000000 08:01", "1000 2000 r-xp 00000000 08:01 5 /a", "no mapping",
          "1000-2000"}) {
        CodeMapping mapping;
        EXPECT_FALSE(parseMapping(line, mapping)) << line;
    }
}

TEST(TasksTest, NamesMayHoldAnything) {
    FixtureProcess fixture({"spin", "1"});
    for (const std::string name : {") R 1 1", "a (b) c", "\\012 x", "Tgid: 1", " ", "\t)"}) {
        fixture.say("name " + name);
        ASSERT_EQ("named", fixture.readLine());

        EXPECT_EQ(name, profiler::nameOf(fixture.id(), fixture.id()));
        EXPECT_EQ(::getpid(), profiler::parentOf(fixture.id()));
        EXPECT_EQ(fixture.id(), profiler::processOfThread(fixture.id()));
    }
}

TEST(TasksTest, ALineFeedInANameIsNoEndOfIt) {
    std::array<char, 16> former{};
    ASSERT_EQ(0, ::prctl(PR_GET_NAME, former.data()));
    ASSERT_EQ(0, ::prctl(PR_SET_NAME, "a\nTgid:\t1\n"));

    EXPECT_EQ("a\nTgid:\t1\n", profiler::nameOf(::getpid(), ::getpid()));
    EXPECT_EQ(::getpid(), profiler::processOfThread(::getpid()));
    EXPECT_EQ(::getppid(), profiler::parentOf(::getpid()));
    EXPECT_EQ(0, ::prctl(PR_SET_NAME, former.data()));
}

TEST(TasksTest, ThreadsKnowTheirProcess) {
    FixtureProcess fixture({"spin", "5"});
    const auto threads = profiler::threadsOf(fixture.id());

    EXPECT_EQ(6U, threads.size());
    for (const pid_t thread : threads) {
        EXPECT_EQ(fixture.id(), profiler::processOfThread(thread));
        EXPECT_EQ(0, profiler::tracerOf(thread));
        EXPECT_FALSE(profiler::hasEnded(thread));
    }
    const auto below = profiler::processesBelow(::getpid());
    EXPECT_EQ(::getpid(), below.front());
    EXPECT_EQ(1, std::count(below.begin(), below.end(), fixture.id()));
}

TEST(TasksTest, AProcessThatHasEndedHasNothing) {
    FixtureProcess fixture({"spin", "1"});
    const pid_t id = fixture.id();
    fixture.closeInput();
    (void)fixture.wait();

    EXPECT_TRUE(profiler::threadsOf(id).empty());
    EXPECT_TRUE(profiler::codeMappingsOf(id).empty());
    EXPECT_EQ("", profiler::nameOf(id, id));
    EXPECT_EQ(0, profiler::parentOf(id));
    EXPECT_EQ(0, profiler::processOfThread(id));
    EXPECT_TRUE(profiler::hasEnded(id));
}

TEST(TasksTest, TheOwnProgramIsMappedAsCode) {
    const auto mappings = profiler::codeMappingsOf(::getpid());
    const auto here = reinterpret_cast<std::uint64_t>(&stateOf);

    EXPECT_TRUE(std::any_of(mappings.begin(), mappings.end(), [&](const CodeMapping& mapping) {
        return mapping.begin <= here && here < mapping.end && mapping.process == ::getpid() &&
               mapping.path.ends_with("/kolvan_profiler_engine_tests");
    }));
}

}  // namespace kolvan::test
