#include "companions/profiler/engine/SamplingRights.h"

#include "tests/profiler/support/ChildOfTest.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include <linux/capability.h>
#include <sched.h>
#include <unistd.h>

namespace kolvan::test {
namespace {

using profiler::obstacleOf;
using profiler::readSamplingRights;
using profiler::SamplingObstacle;

TEST(SamplingRightsTest, TheLevelIsInTheWayFromTheThirdOn) {
    for (const int error : {EACCES, EPERM}) {
        for (const int level : {-1, 0, 1, 2}) {
            EXPECT_EQ(SamplingObstacle::Filter, obstacleOf(error, {level, false})) << level;
        }
        for (const int level : {3, 4}) {
            EXPECT_EQ(SamplingObstacle::Level, obstacleOf(error, {level, false})) << level;
        }
    }
}

TEST(SamplingRightsTest, NoLevelIsInTheWayOfThePrivileged) {
    EXPECT_EQ(SamplingObstacle::Filter, obstacleOf(EPERM, {3, true}));
}

TEST(SamplingRightsTest, AnUnknownLevelIsNotBlamed) {
    EXPECT_EQ(SamplingObstacle::Filter, obstacleOf(EACCES, {}));
}

TEST(SamplingRightsTest, OtherErrorsHaveOtherReasons) {
    EXPECT_EQ(SamplingObstacle::NoEvents, obstacleOf(ENOSYS, {3, false}));
    EXPECT_EQ(SamplingObstacle::Descriptors, obstacleOf(EMFILE, {3, false}));
    EXPECT_EQ(SamplingObstacle::Descriptors, obstacleOf(ENFILE, {3, false}));
    EXPECT_EQ(SamplingObstacle::Unknown, obstacleOf(EBUSY, {3, false}));
}

/// In a process that `prepare` has changed.
std::string privilegedAfter(void (*prepare)()) {
    return resultOfChild([prepare] {
        prepare();
        return std::string(readSamplingRights().privileged ? "yes" : "no");
    });
}

TEST(SamplingRightsTest, OneCapabilityMakesPrivileged) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "Takes root.";
    }
    EXPECT_EQ("yes", privilegedAfter([] {}));
    EXPECT_EQ("yes", privilegedAfter([] { becomeUserWith(CAP_PERFMON); }));
    EXPECT_EQ("no", privilegedAfter([] { becomeUserWith(CAP_SYS_PTRACE); }));
    EXPECT_EQ("no", privilegedAfter(becomeOrdinaryUser));
}

TEST(SamplingRightsTest, CapabilitiesOfAContainersOwnUsersCountForNothing) {
    const std::string result = resultOfChild([] {
        if (::unshare(CLONE_NEWUSER) != 0) {
            return std::string("no such thing");
        }
        return std::string(readSamplingRights().privileged ? "privileged" : "ordinary");
    });
    if (result == "no such thing") {
        GTEST_SKIP() << "User namespaces are not to be had.";
    }

    EXPECT_EQ("ordinary", result);
}

}  // namespace
}  // namespace kolvan::test
