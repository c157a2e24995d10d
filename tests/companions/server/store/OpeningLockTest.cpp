#include "companions/server/store/OpeningLock.h"

#include "tests/companions/server/support/FailureOf.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/ThreadStates.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <optional>
#include <string>

#include <unistd.h>

namespace kolvan::server {
namespace {

class OpeningLockTest : public ::testing::Test {
protected:
    test::TemporaryDirectory directory;
    const std::string file = directory.entry("kolvan.sqlite");
};

TEST_F(OpeningLockTest, NextOneWaitsUntilTheFirstIsGivenBack) {
    std::optional<OpeningLock> first(file);
    std::atomic<bool> givenBack = false;
    std::promise<pid_t> thread;
    auto next = std::async(std::launch::async, [&] {
        thread.set_value(::gettid());
        const OpeningLock lock(file);
        return givenBack.load();
    });

    test::waitUntilThreadSleeps(thread.get_future().get());
    givenBack = true;
    first.reset();

    EXPECT_TRUE(next.get());
}

TEST_F(OpeningLockTest, LeavesNothingBehind) {
    { const OpeningLock lock(file); }

    EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST_F(OpeningLockTest, MissingDirectoryIsNamed) {
    const std::string none = directory.entry("none/kolvan.sqlite");

    EXPECT_EQ("Failed to open " + none + ": No such file or directory",
              failureOf([&] { const OpeningLock lock(none); }));
}

}  // namespace
}  // namespace kolvan::server
