#include "basekit2/process/PipeReader.h"

#include "tests/basekit2/ProcessSupport.h"
#include "tests/support/ThreadShortage.h"
#include "tests/support/ThreadStates.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace kolvan::test {

namespace {

using basekit2::make_ref_counted;
using basekit2::ref_ptr_t;
using basekit2::result_t;
using basekit2::UniqueFd;
using basekit2::process::IPipeReaderCallback;
using basekit2::process::PipeReader;

std::chrono::steady_clock::time_point soon() {
    return std::chrono::steady_clock::now() + kDeadline;
}

/// A pipe with both its ends.
struct TestPipe {
    TestPipe() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipe");
        }
        readEnd.reset(ends[0]);
        writeEnd.reset(ends[1]);
    }

    void write(const std::string& text) const {
        std::size_t done = 0;
        while (done < text.size()) {
            const ssize_t written = ::write(writeEnd.get(), text.data() + done, text.size() - done);
            ASSERT_LT(0, written);
            done += static_cast<std::size_t>(written);
        }
    }

    /// The reading end with who gets what is read; may be asked for once.
    PipeReader::Pipe to(const ref_ptr_t<IPipeReaderCallback>& receiver) {
        return {receiver, std::move(readEnd)};
    }

    UniqueFd readEnd;
    UniqueFd writeEnd;
};

template <typename... Pipes>
std::vector<PipeReader::Pipe> all(Pipes... pipes) {
    std::vector<PipeReader::Pipe> list;
    (list.push_back(std::move(pipes)), ...);
    return list;
}

class PipeReaderTest : public AuditedProcessTest {
protected:
    TestPipe pipe;
    TestPipe other;
};

/// Reports an error at every chunk.
class FailingReader : public RecordingReader {
public:
    result_t onData(const char* data, std::int32_t length) override {
        (void)RecordingReader::onData(data, length);
        return result_t::from_errno(EIO);
    }
};

/// Writes to its pipe at every chunk, so that there is always something to read until it is enough.
class RefillingReader : public RecordingReader {
public:
    explicit RefillingReader(TestPipe& pipeToFill) : pipe(pipeToFill) {}

    result_t onData(const char*, std::int32_t) override {
        if (enough) {
            pipe.writeEnd.reset();
        } else {
            pipe.write("x");
        }
        return result_t::no_error();
    }

    std::atomic<bool> enough{false};

private:
    TestPipe& pipe;
};

/// Holds the reading thread at every chunk until the reader has been told to stop.
class LateReader : public RecordingReader {
public:
    /// @param descriptor the event that tells the reader to stop
    void holdUntil(int descriptor) { stopEvent = descriptor; }

    result_t onData(const char* data, std::int32_t length) override {
        (void)RecordingReader::onData(data, length);
        pollfd wait{stopEvent, POLLIN, 0};
        lookUntil([&wait] { return ::poll(&wait, 1, 0) == 1; }, "the reader is not stopped");
        return result_t::no_error();
    }

private:
    std::atomic<int> stopEvent{-1};
};

/// The number of the event that a reader has opened.
int eventOpenedSince(const std::map<int, std::string>& before) {
    for (const auto& [number, target] : openDescriptors()) {
        if (before.count(number) == 0 && target == "anon_inode:[eventfd]") {
            return number;
        }
    }
    throw std::runtime_error("no event");
}

/// Tells when it is destroyed.
class MortalReader : public RecordingReader {
public:
    explicit MortalReader(bool& destroyedFlag) : destroyed(destroyedFlag) {}

protected:
    ~MortalReader() override { destroyed = true; }

private:
    bool& destroyed;
};

}  // namespace

TEST_F(PipeReaderTest, DeliversEverythingUpToTheEnd) {
    const auto receiver = make_ref_counted<RecordingReader>();
    const PipeReader reader(all(pipe.to(receiver)));

    pipe.write(std::string("first\nhalf a \0 line", 19));
    pipe.writeEnd.reset();

    EXPECT_TRUE(reader.waitForEnd(soon()));
    EXPECT_EQ(std::string("first\nhalf a \0 line", 19), receiver->text());
}

TEST_F(PipeReaderTest, PassesAPieceThatWasWrittenAtOnceAsOneChunk) {
    const auto receiver = make_ref_counted<RecordingReader>();
    const PipeReader reader(all(pipe.to(receiver)));

    pipe.write("one\ntwo\nhalf");
    ASSERT_TRUE(receiver->waitFor("half"));
    pipe.write(" and the rest\n");
    pipe.writeEnd.reset();

    EXPECT_TRUE(reader.waitForEnd(soon()));
    EXPECT_EQ((std::vector<std::string>{"one\ntwo\nhalf", " and the rest\n"}), receiver->chunks());
}

TEST_F(PipeReaderTest, DeliversWhileThePipeIsStillOpen) {
    const auto receiver = make_ref_counted<RecordingReader>();
    const PipeReader reader(all(pipe.to(receiver)));

    pipe.write("now");

    EXPECT_TRUE(receiver->waitFor("now"));
    pipe.writeEnd.reset();
    EXPECT_TRUE(reader.waitForEnd(soon()));
}

TEST_F(PipeReaderTest, PipeThatIsClosedAtOnceGivesNothing) {
    const auto receiver = make_ref_counted<RecordingReader>();
    const PipeReader reader(all(pipe.to(receiver)));

    pipe.writeEnd.reset();

    EXPECT_TRUE(reader.waitForEnd(soon()));
    EXPECT_EQ(std::vector<std::string>(), receiver->chunks());
}

TEST_F(PipeReaderTest, KeepsTheOrderOfManyBytes) {
    const auto receiver = make_ref_counted<RecordingReader>();
    std::string expected;
    const PipeReader reader(all(pipe.to(receiver)));

    for (int i = 0; i < 50000; ++i) {
        const std::string piece = std::to_string(i) + ' ';
        expected += piece;
        pipe.write(piece);
    }
    pipe.writeEnd.reset();

    EXPECT_TRUE(reader.waitForEnd(soon()));
    EXPECT_EQ(expected, receiver->text());
}

TEST_F(PipeReaderTest, WaitingEndsAtItsDeadlineWhileThePipeIsOpen) {
    const auto receiver = make_ref_counted<RecordingReader>();
    const PipeReader reader(all(pipe.to(receiver)));

    EXPECT_FALSE(reader.waitForEnd(std::chrono::steady_clock::now()));

    pipe.writeEnd.reset();
    EXPECT_TRUE(reader.waitForEnd(soon()));
    EXPECT_TRUE(reader.waitForEnd(std::chrono::steady_clock::now()));
}

TEST_F(PipeReaderTest, StopsThoughThePipesAreOpen) {
    const auto receiver = make_ref_counted<RecordingReader>();
    withinDeadline([&] { const PipeReader reader(all(pipe.to(receiver), other.to(receiver))); });

    EXPECT_EQ("", receiver->text());
}

// The reader handles its first chunk from before the rest is written until after it is stopped, so
// that it has not looked at the pipes in between.
TEST_F(PipeReaderTest, ReadsWhatIsLeftInEveryPipeWhenItIsStopped) {
    const auto before = openDescriptors();
    const auto late = make_ref_counted<LateReader>();
    const auto receiver = make_ref_counted<RecordingReader>();
    withinDeadline([&] {
        const PipeReader reader(all(pipe.to(late), other.to(receiver)));
        late->holdUntil(eventOpenedSince(before));
        pipe.write("first");
        EXPECT_TRUE(late->waitFor("first"));
        pipe.write(" second");
        other.write("other");
    });

    EXPECT_EQ("first second", late->text());
    EXPECT_EQ("other", receiver->text());
}

// Whether a reader is still starting, already waits or just reads when it is stopped differs from
// round to round.
TEST_F(PipeReaderTest, ReadsWhatHasBeenWrittenToEveryPipeBeforeItStops) {
    const std::string text(60000, 'x');
    const std::string otherText(60000, 'y');
    for (int round = 0; round < 100; ++round) {
        TestPipe one;
        TestPipe two;
        const auto receiver = make_ref_counted<RecordingReader>();
        const auto otherReceiver = make_ref_counted<RecordingReader>();
        one.write(text);
        two.write(otherText);

        withinDeadline(
            [&] { const PipeReader reader(all(one.to(receiver), two.to(otherReceiver))); });

        ASSERT_EQ(text, receiver->text()) << round;
        ASSERT_EQ(otherText, otherReceiver->text()) << round;
    }
}

TEST_F(PipeReaderTest, StopsThoughSomebodyKeepsWriting) {
    const auto receiver = make_ref_counted<RecordingReader>();
    const UniqueFd ours(::fcntl(pipe.writeEnd.get(), F_DUPFD_CLOEXEC, 0));
    std::atomic<bool> enough{false};
    ASSERT_EQ(0, ::fcntl(ours.get(), F_SETFL, O_NONBLOCK));
    auto writer = std::async(std::launch::async, [&] {
        const std::string piece(4096, 'x');
        while (!enough) {
            (void)!::write(ours.get(), piece.data(), piece.size());
        }
    });

    withinDeadline([&] {
        // The other end stays open for the writer, which would otherwise die of it.
        const UniqueFd other(::fcntl(pipe.readEnd.get(), F_DUPFD_CLOEXEC, 0));
        {
            const PipeReader reader(all(pipe.to(receiver)));
            (void)receiver->waitFor("x");
        }
        enough = true;
        writer.get();
    });

    EXPECT_NE("", receiver->text());
}

TEST_F(PipeReaderTest, SeveralPipesArriveWholeAndInOrder) {
    const auto receiver = make_ref_counted<RecordingReader>();
    const auto otherReceiver = make_ref_counted<RecordingReader>();
    const PipeReader reader(all(pipe.to(receiver), other.to(otherReceiver)));
    const auto writeNumbers = [](TestPipe& into, const char* mark) {
        std::string expected;
        for (int i = 0; i < 50000; ++i) {
            const std::string piece = std::to_string(i) + mark;
            expected += piece;
            into.write(piece);
        }
        into.writeEnd.reset();
        return expected;
    };

    std::string written;
    std::string writtenToOther;
    withinDeadline([&] {
        auto writer = std::async(std::launch::async, [&] { return writeNumbers(pipe, " "); });
        writtenToOther = writeNumbers(other, "\n");
        written = writer.get();
    });

    EXPECT_TRUE(reader.waitForEnd(soon()));
    EXPECT_EQ(written, receiver->text());
    EXPECT_EQ(writtenToOther, otherReceiver->text());
}

TEST_F(PipeReaderTest, PipeThatIsNeverEmptyHoldsUpNoOther) {
    for (const bool isFloodFirst : {true, false}) {
        TestPipe flooded;
        TestPipe calm;
        const auto flood = make_ref_counted<RefillingReader>(flooded);
        const auto receiver = make_ref_counted<RecordingReader>();
        const PipeReader reader(isFloodFirst ? all(flooded.to(flood), calm.to(receiver))
                                             : all(calm.to(receiver), flooded.to(flood)));
        flooded.write("x");
        calm.write("text");

        EXPECT_TRUE(receiver->waitFor("text")) << isFloodFirst;

        flood->enough = true;
        calm.writeEnd.reset();
        EXPECT_TRUE(reader.waitForEnd(soon())) << isFloodFirst;
    }
}

TEST_F(PipeReaderTest, PipeIsClosedAtItsEndWhileAnotherGoesOn) {
    const auto receiver = make_ref_counted<RecordingReader>();
    const auto otherReceiver = make_ref_counted<RecordingReader>();
    const int descriptor = pipe.readEnd.get();
    const PipeReader reader(all(pipe.to(receiver), other.to(otherReceiver)));

    pipe.write("short");
    pipe.writeEnd.reset();

    EXPECT_TRUE(eventually([&] { return openDescriptors().count(descriptor) == 0; }));
    EXPECT_EQ("short", receiver->text());
    EXPECT_FALSE(reader.waitForEnd(std::chrono::steady_clock::now()));
    other.write("long");
    EXPECT_TRUE(otherReceiver->waitFor("long"));
    other.writeEnd.reset();
    EXPECT_TRUE(reader.waitForEnd(soon()));
}

TEST_F(PipeReaderTest, WithoutAThreadThePipesAreClosed) {
    const auto receiver = make_ref_counted<RecordingReader>();
    const auto before = openDescriptors();
    ThreadShortage shortage;
    shortage.begin();

    try {
        const PipeReader reader(all(pipe.to(receiver), other.to(receiver)));
        ADD_FAILURE() << "a reader without a thread";
    } catch (const std::system_error& failure) {
        EXPECT_EQ(std::make_error_code(std::errc::resource_unavailable_try_again), failure.code());
    }

    EXPECT_EQ(before.size() - 2, openDescriptors().size());
}

TEST_F(PipeReaderTest, CallbackThatThrowsDoesNotHoldUpAnotherPipe) {
    const auto throwing = make_ref_counted<ThrowingReader>();
    const auto receiver = make_ref_counted<RecordingReader>();
    const PipeReader reader(all(pipe.to(throwing), other.to(receiver)));

    pipe.write("first");
    ASSERT_TRUE(throwing->waitFor("first"));
    other.write("text");
    other.writeEnd.reset();
    pipe.writeEnd.reset();

    EXPECT_TRUE(reader.waitForEnd(soon()));
    EXPECT_EQ("text", receiver->text());
}

TEST_F(PipeReaderTest, GoesOnAfterACallbackThatThrows) {
    const auto receiver = make_ref_counted<ThrowingReader>();
    const PipeReader reader(all(pipe.to(receiver)));

    pipe.write("first");
    ASSERT_TRUE(receiver->waitFor("first"));
    pipe.write("second");
    pipe.writeEnd.reset();

    EXPECT_TRUE(reader.waitForEnd(soon()));
    EXPECT_EQ((std::vector<std::string>{"first", "second"}), receiver->chunks());
}

TEST_F(PipeReaderTest, GoesOnAfterACallbackThatReportsAnError) {
    const auto receiver = make_ref_counted<FailingReader>();
    const PipeReader reader(all(pipe.to(receiver)));

    pipe.write("first");
    ASSERT_TRUE(receiver->waitFor("first"));
    pipe.write("second");
    pipe.writeEnd.reset();

    EXPECT_TRUE(reader.waitForEnd(soon()));
    EXPECT_EQ((std::vector<std::string>{"first", "second"}), receiver->chunks());
}

TEST_F(PipeReaderTest, KeepsItsReceiverAliveUntilItIsDestroyed) {
    bool destroyed = false;
    {
        auto receiver = make_ref_counted<MortalReader>(destroyed);
        const PipeReader reader(all(pipe.to(receiver)));
        receiver = ref_ptr_t<MortalReader>();
        pipe.write("text");
        pipe.writeEnd.reset();

        EXPECT_TRUE(reader.waitForEnd(soon()));
        EXPECT_FALSE(destroyed);
    }

    EXPECT_TRUE(destroyed);
}

}  // namespace kolvan::test
