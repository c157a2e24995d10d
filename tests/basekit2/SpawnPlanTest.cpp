#include "basekit2/process/SpawnPlan.h"

#include "tests/basekit2/ProcessSupport.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <unistd.h>
#include <cerrno>
#include <new>
#include <string>

namespace {

constexpr int kNever = -1;

int stepsUntilFailure = kNever;  // of one thread: a plan is filled in by the one that starts

bool fails() {
    return stepsUntilFailure != kNever && stepsUntilFailure-- == 0;
}

template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

// Take the place of the C library's functions in this program.
#define NEXT(name) static const auto real = next<decltype(&name)>(#name)

extern "C" {

int posix_spawn_file_actions_init(posix_spawn_file_actions_t* actions) noexcept {
    NEXT(posix_spawn_file_actions_init);
    return fails() ? ENOMEM : real(actions);
}

int posix_spawnattr_init(posix_spawnattr_t* attributes) noexcept {
    NEXT(posix_spawnattr_init);
    return fails() ? ENOMEM : real(attributes);
}

int posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t* actions, int source,
                                     int target) noexcept {
    NEXT(posix_spawn_file_actions_adddup2);
    return fails() ? ENOMEM : real(actions, source, target);
}

int posix_spawn_file_actions_addchdir_np(posix_spawn_file_actions_t* actions,
                                         const char* directory) noexcept {
    NEXT(posix_spawn_file_actions_addchdir_np);
    return fails() ? ENOMEM : real(actions, directory);
}

int posix_spawn_file_actions_addopen(posix_spawn_file_actions_t* actions, int descriptor,
                                     const char* path, int flags, mode_t mode) noexcept {
    NEXT(posix_spawn_file_actions_addopen);
    return fails() ? ENOMEM : real(actions, descriptor, path, flags, mode);
}

int posix_spawn_file_actions_addclosefrom_np(posix_spawn_file_actions_t* actions,
                                             int first) noexcept {
    NEXT(posix_spawn_file_actions_addclosefrom_np);
    return fails() ? ENOMEM : real(actions, first);
}

}  // extern "C"

namespace kolvan::test {

using basekit2::make_ref_counted;
using basekit2::result_t;
using basekit2::process::IProcess;

namespace {

class SpawnPlanTest : public AuditedTest {
protected:
    ~SpawnPlanTest() override { stepsUntilFailure = kNever; }
};

/// Starts a child whose plan lacks the memory for one of its steps, counted from 0.
/// @return what the child says, or "no memory"
std::string outcomeOfFailureAt(int step) {
    const auto reader = make_ref_counted<RecordingReader>();
    const auto process = IProcess::create();
    EXPECT_EQ(result_t::no_error(), process->connectOutputStream(STDOUT_FILENO, reader));
    stepsUntilFailure = step;
    try {
        EXPECT_EQ(result_t::no_error(),
                  startProgram(*process, KOLVAN_TEST_CHILD, {"text", "1", "started"}, "/"));
    } catch (const std::bad_alloc&) {
        EXPECT_EQ(-1, process->wait());
        EXPECT_EQ("", reader->text());
        return "no memory";
    }
    EXPECT_EQ(0, withinDeadline([&] { return process->wait(); }));
    return reader->text();
}

}  // namespace

TEST_F(SpawnPlanTest, MemoryThatIsMissingForAnyStepIsAnExceptionAndStartsNothing) {
    constexpr int kSteps = 6;  // actions, attributes, output, directory, input, all others closed
    for (int step = 0; step < kSteps; ++step) {
        EXPECT_EQ("no memory", outcomeOfFailureAt(step)) << step;
    }

    EXPECT_EQ("started", outcomeOfFailureAt(kSteps));
}

}  // namespace kolvan::test
