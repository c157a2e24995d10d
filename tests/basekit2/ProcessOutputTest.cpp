#include "basekit2/process/IProcess.h"
#include "tests/basekit2/ProcessSupport.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

namespace kolvan::test {

using basekit2::make_ref_counted;
using basekit2::ref_ptr_t;
using basekit2::result_t;
using basekit2::process::IProcess;

namespace {

constexpr std::uint64_t kMegabyte = 1024 * 1024;

/// A run whose three channels are compared with their patterns.
class FloodRun {
public:
    FloodRun() : process(IProcess::create()) {
        std::string number;
        EXPECT_EQ(result_t::no_error(), process->openOutputPipe(readers[2], number));
        EXPECT_EQ(result_t::no_error(), process->connectOutputStream(1, readers[0]));
        EXPECT_EQ(result_t::no_error(), process->connectOutputStream(2, readers[1]));
    }

    /// @return the exit code
    int run(const std::vector<std::string>& actions) {
        EXPECT_EQ(result_t::no_error(), startProgram(*process, KOLVAN_TEST_CHILD, actions));
        return withinDeadline([this] { return process->wait(); });
    }

    std::optional<std::uint64_t> matchingBytes(int channel) const {
        return readers.at(static_cast<std::size_t>(channel) - 1)->matchingBytes();
    }

private:
    std::array<ref_ptr_t<PatternReader>, 3> readers{make_ref_counted<PatternReader>(1),
                                                    make_ref_counted<PatternReader>(2),
                                                    make_ref_counted<PatternReader>(3)};
    ref_ptr_t<IProcess> process;
};

/// Signals every other thread of this process again and again while it lives.
class SignalStorm {
public:
    SignalStorm() {
        struct sigaction action {};
        action.sa_handler = [](int) {};  // without SA_RESTART: system calls end with EINTR
        (void)::sigaction(SIGUSR1, &action, &former);
        storm = std::thread([this] { blow(); });
    }
    ~SignalStorm() {
        enough = true;
        storm.join();
        (void)::sigaction(SIGUSR1, &former, nullptr);
    }

    SignalStorm(const SignalStorm&) = delete;
    SignalStorm& operator=(const SignalStorm&) = delete;

private:
    void blow() const {
        while (!enough) {
            std::error_code vanished;
            for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
                const pid_t thread = std::stoi(task.path().filename());
                if (thread != ::gettid()) {
                    (void)::syscall(SYS_tgkill, ::getpid(), thread, SIGUSR1);
                }
            }
        }
    }

    struct sigaction former {};
    std::atomic<bool> enough{false};
    std::thread storm;
};

class ProcessOutputTest : public AuditedProcessTest {
protected:
    TemporaryDirectory directory;
};

}  // namespace

TEST_F(ProcessOutputTest, EveryChannelGoesToItsOwnReader) {
    ChildRun run;
    ASSERT_EQ(result_t::no_error(),
              run.start({"text", "1", "output", "text", "2", "error", "text", "3", "feedback"}));

    EXPECT_EQ(0, run.wait());
    EXPECT_EQ("output", run.out->text());
    EXPECT_EQ("error", run.err->text());
    EXPECT_EQ("feedback", run.feedback->text());
}

TEST_F(ProcessOutputTest, ArrivesWhileTheChildRuns) {
    Fifo fifo(directory.entry("fifo"));
    ChildRun run;
    ASSERT_EQ(result_t::no_error(), run.start({"text", "1", "early", "text", "2", "error", "text",
                                               "3", "feedback", "await", fifo.path()}));

    EXPECT_TRUE(run.out->waitFor("early"));
    EXPECT_TRUE(run.err->waitFor("error"));
    EXPECT_TRUE(run.feedback->waitFor("feedback"));

    fifo.release();
    EXPECT_EQ(0, run.wait());
}

TEST_F(ProcessOutputTest, PieceWrittenAtOnceIsOneChunkAsItStands) {
    Fifo fifo(directory.entry("fifo"));
    ChildRun run;
    ASSERT_EQ(result_t::no_error(), run.start({"text", "1", "one\ntwo\nhalf a li", "await",
                                               fifo.path(), "text", "1", "ne\n"}));
    ASSERT_TRUE(run.out->waitFor("half a li"));
    fifo.release();

    EXPECT_EQ(0, run.wait());
    EXPECT_EQ((std::vector<std::string>{"one\ntwo\nhalf a li", "ne\n"}), run.out->chunks());
}

TEST_F(ProcessOutputTest, FloodOfAllChannelsArrivesWholeAndInOrder) {
    constexpr std::uint64_t kBytes = 22 * kMegabyte + 5;
    FloodRun flood;

    EXPECT_EQ(0, flood.run({"flood", "1,2,3", "65536", std::to_string(kBytes)}));

    for (const int channel : {1, 2, 3}) {
        EXPECT_EQ(kBytes, flood.matchingBytes(channel)) << "channel " << channel;
    }
}

TEST_F(ProcessOutputTest, ManySingleBytesArriveWholeAndInOrder) {
    constexpr std::uint64_t kBytes = 100000;
    FloodRun flood;

    EXPECT_EQ(0, flood.run({"flood", "1,2,3", "1", std::to_string(kBytes)}));

    for (const int channel : {1, 2, 3}) {
        EXPECT_EQ(kBytes, flood.matchingBytes(channel)) << "channel " << channel;
    }
}

TEST_F(ProcessOutputTest, WhatIsWrittenRightBeforeTheEndIsThereWhenTheWaitReturns) {
    for (int round = 0; round < 150; ++round) {
        ChildRun run;
        ASSERT_EQ(result_t::no_error(),
                  run.start({"text", "1", "o", "text", "2", "e", "text", "3", "f", "exit", "11"}));

        ASSERT_EQ(11, run.wait());
        ASSERT_EQ("o", run.out->text());
        ASSERT_EQ("e", run.err->text());
        ASSERT_EQ("f", run.feedback->text());
    }
}

TEST_F(ProcessOutputTest, FullPipesAreThereWhenTheWaitReturns) {
    for (int round = 0; round < 30; ++round) {
        FloodRun flood;

        ASSERT_EQ(5, flood.run({"flood", "1,2,3", "65536", "65536", "exit", "5"}));

        for (const int channel : {1, 2, 3}) {
            ASSERT_EQ(65536U, flood.matchingBytes(channel)) << "channel " << channel;
        }
    }
}

TEST_F(ProcessOutputTest, OutputOfAKilledChildIsThere) {
    ChildRun run;
    ASSERT_EQ(result_t::no_error(),
              run.start({"text", "1", "last words", "die", std::to_string(SIGKILL)}));

    EXPECT_EQ(128 + SIGKILL, run.wait());
    EXPECT_EQ("last words", run.out->text());
}

TEST_F(ProcessOutputTest, SilentGrandchildDoesNotKeepTheWaitFromReturning) {
    Fifo leash(directory.entry("leash"));
    ChildRun run;
    ASSERT_EQ(result_t::no_error(), run.start({"text", "1", "output", "text", "2", "error", "text",
                                               "3", "feedback", "grandchild", leash.path(), "hold",
                                               "text", "1", " and more", "exit", "3"}));

    EXPECT_EQ(3, run.wait());
    EXPECT_EQ("output and more", run.out->text());
    EXPECT_EQ("error", run.err->text());
    EXPECT_EQ("feedback", run.feedback->text());

    leash.release();
    EXPECT_LT(0, reapGrandchild());
}

TEST_F(ProcessOutputTest, NothingThatTheChildWroteIsLostToAGrandchild) {
    constexpr std::uint64_t kBytes = 4 * kMegabyte;
    Fifo leash(directory.entry("leash"));
    FloodRun flood;

    EXPECT_EQ(0, flood.run({"grandchild", leash.path(), "hold", "flood", "1,2,3", "65536",
                            std::to_string(kBytes)}));

    for (const int channel : {1, 2, 3}) {
        EXPECT_EQ(kBytes, flood.matchingBytes(channel)) << "channel " << channel;
    }
    leash.release();
    EXPECT_LT(0, reapGrandchild());
}

TEST_F(ProcessOutputTest, FloodingGrandchildDoesNotKeepTheWaitFromReturning) {
    Fifo leash(directory.entry("leash"));
    {
        ChildRun run;
        ASSERT_EQ(result_t::no_error(),
                  run.start({"text", "1", "output", "text", "2", "error", "text", "3", "feedback",
                             "grandchild", leash.path(), "flood:1,2,3", "exit", "3"}));

        EXPECT_EQ(3, run.wait());
        EXPECT_EQ("output", run.out->text().substr(0, 6));
        EXPECT_EQ("error", run.err->text().substr(0, 5));
        EXPECT_EQ("feedback", run.feedback->text().substr(0, 8));
    }

    leash.release();
    EXPECT_LT(0, reapGrandchild());
}

TEST_F(ProcessOutputTest, FloodOnOneChannelDoesNotHideWhatTheChildWroteOnAnother) {
    const std::string kBytes = std::to_string(kMegabyte);
    Fifo leash(directory.entry("leash"));
    {
        FloodRun flood;

        EXPECT_EQ(7, flood.run({"grandchild", leash.path(), "flood:2", "flood", "1,3", "65536",
                                kBytes, "exit", "7"}));

        EXPECT_EQ(kMegabyte, flood.matchingBytes(1));
        EXPECT_EQ(kMegabyte, flood.matchingBytes(3));
    }
    leash.release();
    EXPECT_LT(0, reapGrandchild());
}

TEST_F(ProcessOutputTest, NoCallbackComesAfterTheWaitHasReturned) {
    Fifo leash(directory.entry("leash"));
    ChildRun run;
    ASSERT_EQ(result_t::no_error(), run.start({"grandchild", leash.path(), "flood:1,2,3"}));
    ASSERT_EQ(0, run.wait());
    const std::size_t chunks =
        run.out->chunks().size() + run.err->chunks().size() + run.feedback->chunks().size();

    // A second child is read from its start to its end meanwhile: time enough for a late callback.
    EXPECT_EQ("later", outputOf({"text", "1", "later"}));

    EXPECT_EQ(chunks,
              run.out->chunks().size() + run.err->chunks().size() + run.feedback->chunks().size());
    leash.release();
    EXPECT_LT(0, reapGrandchild());
}

TEST_F(ProcessOutputTest, CallbackThatThrowsLosesNothingElse) {
    const auto throwing = make_ref_counted<ThrowingReader>();
    const auto calm = make_ref_counted<RecordingReader>();
    const ref_ptr_t<IProcess> process = IProcess::create();
    Fifo fifo(directory.entry("fifo"));
    ASSERT_EQ(result_t::no_error(), process->connectOutputStream(1, throwing));
    ASSERT_EQ(result_t::no_error(), process->connectOutputStream(2, calm));
    ASSERT_EQ(result_t::no_error(),
              startProgram(*process, KOLVAN_TEST_CHILD,
                           {"text", "1", "first", "await", fifo.path(), "text", "1", "second",
                            "text", "2", "other", "exit", "8"}));
    ASSERT_TRUE(throwing->waitFor("first"));
    fifo.release();

    EXPECT_EQ(8, withinDeadline([&] { return process->wait(); }));
    EXPECT_EQ((std::vector<std::string>{"first", "second"}), throwing->chunks());
    EXPECT_EQ("other", calm->text());
}

TEST_F(ProcessOutputTest, OneReaderCanServeTwoChannels) {
    const auto both = make_ref_counted<RecordingReader>();
    const ref_ptr_t<IProcess> process = IProcess::create();
    ASSERT_EQ(result_t::no_error(), process->connectOutputStream(1, both));
    ASSERT_EQ(result_t::no_error(), process->connectOutputStream(2, both));

    ASSERT_EQ(result_t::no_error(),
              startProgram(*process, KOLVAN_TEST_CHILD, {"text", "1", "x", "text", "2", "x"}));

    EXPECT_EQ(0, withinDeadline([&] { return process->wait(); }));
    EXPECT_EQ("xx", both->text());
}

TEST_F(ProcessOutputTest, ReaderStaysAliveAsLongAsItMayBeCalled) {
    Fifo fifo(directory.entry("fifo"));
    auto reader = make_ref_counted<RecordingReader>();
    RecordingReader* const raw = reader.get();
    const ref_ptr_t<IProcess> process = IProcess::create();
    ASSERT_EQ(result_t::no_error(), process->connectOutputStream(1, reader));
    ASSERT_EQ(result_t::no_error(), startProgram(*process, KOLVAN_TEST_CHILD,
                                                 {"await", fifo.path(), "text", "1", "text"}));

    // The process object holds its reference while the child can still write.
    reader = ref_ptr_t<RecordingReader>();
    fifo.release();

    EXPECT_TRUE(raw->waitFor("text"));
    EXPECT_EQ(0, withinDeadline([&] { return process->wait(); }));
}

TEST_F(ProcessOutputTest, SignalsDisturbNeitherReadingNorWaiting) {
    constexpr std::uint64_t kBytes = kMegabyte;
    const SignalStorm storm;
    for (int round = 0; round < 5; ++round) {
        FloodRun flood;

        ASSERT_EQ(4, flood.run({"flood", "1,2,3", "5000", std::to_string(kBytes), "exit", "4"}));

        for (const int channel : {1, 2, 3}) {
            ASSERT_EQ(kBytes, flood.matchingBytes(channel)) << "channel " << channel;
        }
    }
}

}  // namespace kolvan::test
