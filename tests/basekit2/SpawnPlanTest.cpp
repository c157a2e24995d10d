#include "basekit2/process/SpawnPlan.h"

#include "basekit2/process/Pipe.h"
#include "tests/basekit2/ProcessSupport.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::atomic<int> signalAtChdir{0};

}  // namespace

// Takes the place of the C library's function in this program: a moment at which a child is on its
// way to its program.
extern "C" int chdir(const char* directory) noexcept {
    if (signalAtChdir != 0) {
        (void)::kill(::getpid(), signalAtChdir);
    }
    return static_cast<int>(::syscall(SYS_chdir, directory));
}

namespace kolvan::test {

using basekit2::result_t;
using basekit2::process::PipeEnds;
using basekit2::process::SpawnPlan;

namespace {

namespace fs = std::filesystem;

using SpawnPlanTest = AuditedProcessTest;

/// A directory with a script "tool" in it that ends with `code`.
std::string directoryWithTool(const TemporaryDirectory& parent, const std::string& name, int code,
                              fs::perms permissions = fs::perms::owner_all) {
    const std::string directory = parent.entry(name);
    fs::create_directory(directory);
    std::ofstream(directory + "/tool") << "#!/bin/sh\nexit " << code << "\n";
    fs::permissions(directory + "/tool", permissions);
    return directory;
}

/// Starts "tool" along PATH.
/// @return its exit code, or the negative number of the error
int codeOfTool(const std::string& workingDirectory = "") {
    SpawnPlan plan;
    if (!workingDirectory.empty()) {
        plan.setWorkingDirectory(workingDirectory);
    }
    pid_t child = -1;
    const result_t started = plan.spawn("tool", {"tool"}, nullptr, /*searchPath=*/true, child);
    return started.is_failure() ? -started.error_code().value() : exitCodeOfOurChild(child);
}

}  // namespace

TEST_F(SpawnPlanTest, FirstProgramAlongThePathThatCanBeRunIsTaken) {
    const TemporaryDirectory directory;
    const std::string locked = directoryWithTool(directory, "locked", 1, fs::perms::owner_read);
    const std::string first = directoryWithTool(directory, "first", 2);
    const std::string second = directoryWithTool(directory, "second", 3);
    const PathVariable path(directory.entry("missing") + ":/dev/null:" + locked + ":" + first +
                            ":" + second);

    EXPECT_EQ(2, codeOfTool());
}

TEST_F(SpawnPlanTest, ProgramThatMayNotBeRunIsToldOfRatherThanOneThatIsMissing) {
    const TemporaryDirectory directory;
    const std::string locked = directoryWithTool(directory, "locked", 1, fs::perms::owner_read);
    const PathVariable path(locked + ":" + directory.entry("missing"));

    EXPECT_EQ(-EACCES, codeOfTool());
}

TEST_F(SpawnPlanTest, EmptyPartOfThePathIsTheDirectoryThatTheChildStartsIn) {
    const TemporaryDirectory directory;
    const std::string place = directoryWithTool(directory, "place", 4);
    const PathVariable path(directory.entry("missing") + ":");

    EXPECT_EQ(4, codeOfTool(place));
    EXPECT_EQ(-ENOENT, codeOfTool());
}

TEST_F(SpawnPlanTest, ProgramOfAnUnknownFormatEndsTheSearch) {
    const TemporaryDirectory directory;
    const std::string odd = directoryWithTool(directory, "odd", 1);
    std::ofstream(odd + "/tool") << "neither a program nor a script\n";
    const PathVariable path(odd + ":" + directoryWithTool(directory, "good", 5));

    EXPECT_EQ(-ENOEXEC, codeOfTool());
}

TEST_F(SpawnPlanTest, UsualDirectoriesAreSearchedWithoutAPath) {
    const PathVariable path("");
    ::unsetenv("PATH");
    pid_t child = -1;

    ASSERT_EQ(result_t::no_error(),
              SpawnPlan().spawn("true", {"true"}, nullptr, /*searchPath=*/true, child));

    EXPECT_EQ(0, exitCodeOfOurChild(child));
}

TEST_F(SpawnPlanTest, EmptyNameIsNotLookedForAlongThePath) {
    pid_t child = -1;

    EXPECT_EQ(result_t::from_errno(ENOENT),
              SpawnPlan().spawn("", {""}, nullptr, /*searchPath=*/true, child));
}

TEST_F(SpawnPlanTest, SignalOnTheWayToTheProgramIsNotHandledByUs) {
    const TemporaryDirectory directory;
    SpawnPlan plan;
    plan.setWorkingDirectory(directory.path().string());
    struct sigaction handled {};
    struct sigaction former {};
    handled.sa_handler = [](int) { ::_exit(1); };
    ASSERT_EQ(0, ::sigaction(SIGTERM, &handled, &former));
    pid_t child = -1;

    signalAtChdir = SIGTERM;
    const result_t started = plan.spawn("/bin/true", {"true"}, nullptr, false, child);
    signalAtChdir = 0;
    ASSERT_EQ(0, ::sigaction(SIGTERM, &former, nullptr));

    ASSERT_EQ(result_t::no_error(), started);
    int status = 0;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(SIGTERM, WTERMSIG(status));
}

TEST_F(SpawnPlanTest, LackOfDescriptorsIsReportedByItsOwnNumber) {
    const CrowdedDescriptors crowded(1);
    pid_t child = -1;

    const result_t started = SpawnPlan().spawn("/bin/true", {"true"}, nullptr, false, child);

    EXPECT_EQ(result_t::from_errno(EMFILE), started);
    EXPECT_EQ(-1, child);
}

TEST_F(SpawnPlanTest, ChildNeedsNoFreeDescriptorOfItsOwn) {
    const CrowdedDescriptors crowded(2);  // both are the report's
    pid_t child = -1;

    ASSERT_EQ(result_t::no_error(),
              SpawnPlan().spawn("/bin/true", {"true"}, nullptr, false, child));

    EXPECT_EQ(0, exitCodeOfOurChild(child));
}

TEST_F(SpawnPlanTest, ChildThatDidNotBecomeAProgramIsReaped) {
    pid_t child = -1;

    EXPECT_EQ(result_t::from_errno(ENOENT),
              SpawnPlan().spawn("/does/not/exist", {"x"}, nullptr, false, child));

    EXPECT_EQ(-1, ::waitpid(-1, nullptr, WNOHANG));
    EXPECT_EQ(ECHILD, errno);
}

TEST_F(SpawnPlanTest, PipeForAChildLeavesTheLowNumbersToIt) {
    PipeEnds ends;

    ASSERT_EQ(result_t::no_error(), basekit2::process::openPipe(ends));

    EXPECT_LE(SpawnPlan::kLowestSource, ends.writeEnd.get());
    ASSERT_EQ(1, ::write(ends.writeEnd.get(), "x", 1));
    char got = 0;
    EXPECT_EQ(1, ::read(ends.readEnd.get(), &got, 1));
    EXPECT_EQ('x', got);
}

}  // namespace kolvan::test
