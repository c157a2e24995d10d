#include "basekit2/process/PipeReader.h"

#include "tests/basekit2/ProcessSupport.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <stdexcept>
#include <string>
#include <vector>

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

class PipeReaderTest : public AuditedTest {
protected:
    PipeReaderTest() : stopEvent(::eventfd(0, EFD_CLOEXEC)) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipe");
        }
        readEnd.reset(ends[0]);
        writeEnd.reset(ends[1]);
    }

    void write(const std::string& text) {
        std::size_t done = 0;
        while (done < text.size()) {
            const ssize_t written = ::write(writeEnd.get(), text.data() + done, text.size() - done);
            ASSERT_LT(0, written);
            done += static_cast<std::size_t>(written);
        }
    }

    void signalStop() { ASSERT_EQ(0, ::eventfd_write(stopEvent.get(), 1)); }

    UniqueFd stopEvent;
    UniqueFd readEnd;
    UniqueFd writeEnd;
};

/// Throws at every chunk and counts them.
class ThrowingReader : public RecordingReader {
public:
    result_t onData(const char* data, std::int32_t length) override {
        (void)RecordingReader::onData(data, length);
        throw std::runtime_error("a callback that fails");
    }
};

/// Reports an error at every chunk.
class FailingReader : public RecordingReader {
public:
    result_t onData(const char* data, std::int32_t length) override {
        (void)RecordingReader::onData(data, length);
        return result_t::from_errno(EIO);
    }
};

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
    const PipeReader reader(receiver, std::move(readEnd), stopEvent.get());

    write(std::string("first\nhalf a \0 line", 19));
    writeEnd.reset();

    EXPECT_TRUE(reader.waitForEnd(soon()));
    EXPECT_EQ(std::string("first\nhalf a \0 line", 19), receiver->text());
}

TEST_F(PipeReaderTest, PassesAPieceThatWasWrittenAtOnceAsOneChunk) {
    const auto receiver = make_ref_counted<RecordingReader>();
    const PipeReader reader(receiver, std::move(readEnd), stopEvent.get());

    write("one\ntwo\nhalf");
    ASSERT_TRUE(receiver->waitFor("half"));
    write(" and the rest\n");
    writeEnd.reset();

    EXPECT_TRUE(reader.waitForEnd(soon()));
    EXPECT_EQ((std::vector<std::string>{"one\ntwo\nhalf", " and the rest\n"}), receiver->chunks());
}

TEST_F(PipeReaderTest, DeliversWhileThePipeIsStillOpen) {
    const auto receiver = make_ref_counted<RecordingReader>();
    const PipeReader reader(receiver, std::move(readEnd), stopEvent.get());

    write("now");

    EXPECT_TRUE(receiver->waitFor("now"));
    writeEnd.reset();
    EXPECT_TRUE(reader.waitForEnd(soon()));
}

TEST_F(PipeReaderTest, PipeThatIsClosedAtOnceGivesNothing) {
    const auto receiver = make_ref_counted<RecordingReader>();
    const PipeReader reader(receiver, std::move(readEnd), stopEvent.get());

    writeEnd.reset();

    EXPECT_TRUE(reader.waitForEnd(soon()));
    EXPECT_EQ(std::vector<std::string>(), receiver->chunks());
}

TEST_F(PipeReaderTest, KeepsTheOrderOfManyBytes) {
    const auto receiver = make_ref_counted<RecordingReader>();
    std::string expected;
    const PipeReader reader(receiver, std::move(readEnd), stopEvent.get());

    for (int i = 0; i < 50000; ++i) {
        const std::string piece = std::to_string(i) + ' ';
        expected += piece;
        write(piece);
    }
    writeEnd.reset();

    EXPECT_TRUE(reader.waitForEnd(soon()));
    EXPECT_EQ(expected, receiver->text());
}

TEST_F(PipeReaderTest, WaitingEndsAtItsDeadlineWhileThePipeIsOpen) {
    const auto receiver = make_ref_counted<RecordingReader>();
    const PipeReader reader(receiver, std::move(readEnd), stopEvent.get());

    EXPECT_FALSE(reader.waitForEnd(std::chrono::steady_clock::now()));

    writeEnd.reset();
    EXPECT_TRUE(reader.waitForEnd(soon()));
    EXPECT_TRUE(reader.waitForEnd(std::chrono::steady_clock::now()));
}

TEST_F(PipeReaderTest, StopsAtTheEventThoughThePipeIsOpen) {
    const auto receiver = make_ref_counted<RecordingReader>();
    withinDeadline([&] {
        const PipeReader reader(receiver, std::move(readEnd), stopEvent.get());
        signalStop();
    });

    EXPECT_EQ("", receiver->text());
}

TEST_F(PipeReaderTest, ReadsWhatHasBeenWrittenBeforeItStops) {
    const std::string text(60000, 'x');
    const auto receiver = make_ref_counted<RecordingReader>();
    write(text);
    signalStop();

    withinDeadline([&] { const PipeReader reader(receiver, std::move(readEnd), stopEvent.get()); });

    EXPECT_EQ(text, receiver->text());
}

TEST_F(PipeReaderTest, StopsThoughSomebodyKeepsWriting) {
    const auto receiver = make_ref_counted<RecordingReader>();
    const UniqueFd ours(::fcntl(writeEnd.get(), F_DUPFD_CLOEXEC, 0));
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
        const UniqueFd other(::fcntl(readEnd.get(), F_DUPFD_CLOEXEC, 0));
        {
            const PipeReader reader(receiver, std::move(readEnd), stopEvent.get());
            (void)receiver->waitFor("x");
            signalStop();
        }
        enough = true;
        writer.get();
    });

    EXPECT_NE("", receiver->text());
}

TEST_F(PipeReaderTest, SeveralReadersStopAtOneEvent) {
    const auto receiver = make_ref_counted<RecordingReader>();
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_CLOEXEC));
    UniqueFd secondRead(ends[0]);
    const UniqueFd secondWrite(ends[1]);

    withinDeadline([&] {
        const PipeReader first(receiver, std::move(readEnd), stopEvent.get());
        const PipeReader second(receiver, std::move(secondRead), stopEvent.get());
        signalStop();
    });

    EXPECT_EQ("", receiver->text());
}

TEST_F(PipeReaderTest, GoesOnAfterACallbackThatThrows) {
    const auto receiver = make_ref_counted<ThrowingReader>();
    const PipeReader reader(receiver, std::move(readEnd), stopEvent.get());

    write("first");
    ASSERT_TRUE(receiver->waitFor("first"));
    write("second");
    writeEnd.reset();

    EXPECT_TRUE(reader.waitForEnd(soon()));
    EXPECT_EQ((std::vector<std::string>{"first", "second"}), receiver->chunks());
}

TEST_F(PipeReaderTest, GoesOnAfterACallbackThatReportsAnError) {
    const auto receiver = make_ref_counted<FailingReader>();
    const PipeReader reader(receiver, std::move(readEnd), stopEvent.get());

    write("first");
    ASSERT_TRUE(receiver->waitFor("first"));
    write("second");
    writeEnd.reset();

    EXPECT_TRUE(reader.waitForEnd(soon()));
    EXPECT_EQ((std::vector<std::string>{"first", "second"}), receiver->chunks());
}

TEST_F(PipeReaderTest, KeepsItsReceiverAliveUntilItIsDestroyed) {
    bool destroyed = false;
    {
        auto receiver = make_ref_counted<MortalReader>(destroyed);
        const PipeReader reader(receiver, std::move(readEnd), stopEvent.get());
        receiver = ref_ptr_t<MortalReader>();
        write("text");
        writeEnd.reset();

        EXPECT_TRUE(reader.waitForEnd(soon()));
        EXPECT_FALSE(destroyed);
    }

    EXPECT_TRUE(destroyed);
}

}  // namespace kolvan::test
