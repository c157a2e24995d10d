#include "companions/check/WatchedProcess.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <stdexcept>
#include <string>

#include <linux/sched.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::check {
namespace {

using Texts = std::vector<std::string>;

constexpr char kTable[] =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
    "inode\n"
    "   0: 0100007F:A4E2 0100007F:1F90 01 00000000:00000000 00:00000000 00000000     0        0 11 "
    "1\n"
    "   1: 0100007F:A4E4 0200000A:01BB 02 00000000:00000000 00:00000000 00000000     0        0 12 "
    "1\n"
    "   2: 0100007F:A4E6 0100007F:1F90 06 00000000:00000000 00:00000000 00000000     0        0 13 "
    "1\n"
    "   3: 00000000:1F90 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 14 "
    "1\n"
    "   4: 0100007F:A4E8 0100007F:1F91 01 00000000:00000000 00:00000000 00000000     0        0 15 "
    "1\n";

constexpr char kLongTable[] =
    "   0: 00000000000000000000000001000000:A4E2 B80D0120000000000000000001000000:20FB 01 "
    "00000000:00000000 00:00000000 00000000     0        0 21 1\n";

TEST(WatchedProcessTest, EstablishedAndBeginningConnectionsCount) {
    EXPECT_EQ((Texts{"127.0.0.1:8080", "10.0.0.2:443"}),
              connectionsIn(kTable, {"11", "12", "13", "14"}));
}

TEST(WatchedProcessTest, ConnectionsOfOthersDoNotCount) {
    EXPECT_EQ(Texts{}, connectionsIn(kTable, {"1", "99"}));
}

TEST(WatchedProcessTest, LongAddressesAreRead) {
    EXPECT_EQ(Texts{"[2001:db8::1]:8443"}, connectionsIn(kLongTable, {"21"}));
}

TEST(WatchedProcessTest, NumberThatNobodyHasIsNoProcess) {
    try {
        const WatchedProcess process(0x7FFFFFFF);
        FAIL() << "no failure";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ("there is no process 2147483647", error.what());
    }
}

TEST(WatchedProcessTest, OwnProcessIsSeen) {
    const WatchedProcess process(::getpid());

    EXPECT_EQ(Texts{}, process.connections(process.sockets()));
    EXPECT_TRUE(process.children().empty());
    EXPECT_NE(std::string::npos, process.programPath().find("kolvan_check_unit_tests"));
}

/// Starts a process that waits for its end.
/// @param wanted its number, which only root may choose; 0: the system chooses
/// @return its number; -1 when there is none to be had
pid_t startWaiting(pid_t wanted) {
    clone_args how{};
    how.exit_signal = SIGCHLD;
    if (wanted != 0) {
        how.set_tid = reinterpret_cast<std::uintptr_t>(&wanted);
        how.set_tid_size = 1;
    }
    const auto number = static_cast<pid_t>(::syscall(SYS_clone3, &how, sizeof how));
    while (number == 0) {
        ::pause();
    }
    return number;
}

void end(pid_t process) {
    ::kill(process, SIGKILL);
    ::waitpid(process, nullptr, 0);
}

TEST(WatchedProcessTest, NumberThatAnotherProcessHasGotIsNoProcess) {
    const pid_t number = startWaiting(0);
    ASSERT_LT(0, number);
    const WatchedProcess process(number);
    EXPECT_TRUE(process.children().empty());
    end(number);

    // Processes are told apart by the time of their start, which has a step each 10 ms.
    std::string said = "all of them passed for the first one";
    for (int attempt = 0; attempt < 10'000 && said.starts_with("all"); ++attempt) {
        const pid_t successor = startWaiting(number);
        if (successor < 0) {
            GTEST_SKIP() << "This user may not choose the number of a process.";
        }
        try {
            (void)process.children();
        } catch (const std::runtime_error& error) {
            said = error.what();
        }
        end(successor);
    }

    EXPECT_EQ("there is no process " + std::to_string(number), said);
}

}  // namespace
}  // namespace kolvan::check
