#include "basekit2/process/PipeReader.h"

#include "basekit2/Event.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <utility>

#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace basekit2::process {

namespace {

using Pipe = PipeReader::Pipe;

// The capacity of a pipe: pipe(7), 16 pages since Linux 2.6.11. A larger buffer is never filled.
constexpr std::size_t kChunkSize = 65536;

// Less than this is not worth being woken for.
constexpr std::size_t kSmallAmount = 4096;

// Long enough to spare most of the wakings, and far too short to be felt.
constexpr timespec kPause{0, 250'000};

bool isOpen(const Pipe& pipe) {
    return static_cast<bool>(pipe.readEnd);
}

// Returns 0 at the end of the pipe, which is closed then. A read that fails counts as the end:
// nothing more will come.
std::size_t readChunk(Pipe& pipe) {
    std::array<char, kChunkSize> buffer;  // not initialised: only what was read is looked at
    ssize_t got = 0;
    do {
        got = ::read(pipe.readEnd.get(), buffer.data(), buffer.size());
    } while (got < 0 && errno == EINTR);
    if (got <= 0) {
        pipe.readEnd.reset();
        return 0;
    }
    try {
        (void)pipe.receiver->onData(buffer.data(), static_cast<std::int32_t>(got));
    } catch (...) {
        // Whatever a receiver throws, the pipe has to be read on: a child that cannot write hangs.
    }
    return static_cast<std::size_t>(got);
}

// Reads what is in the pipe at this moment and no more: whoever still holds it open may go on
// writing for ever. Of a pipe whose end was reached before, and which is closed, nothing is read:
// there the question how much it holds fails.
void readWhatIsWritten(Pipe& pipe) {
    int available = 0;
    if (::ioctl(pipe.readEnd.get(), FIONREAD, &available) != 0) {
        return;
    }
    auto left = static_cast<std::size_t>(available);
    while (left > 0) {
        const std::size_t got = readChunk(pipe);
        if (got == 0) {
            return;
        }
        left -= std::min(left, got);
    }
}

}  // namespace

PipeReader::PipeReader(std::vector<Pipe> pipesToRead)
    : pipes(std::move(pipesToRead)),
      stopEvent(create_event()),
      waits(pipes.size() + 1, {stopEvent.get(), POLLIN, 0}),
      ended(endReached.get_future()),
      thread([this] {
          readUntilEnd();
          // Whoever still writes is told that nobody reads any more, instead of waiting for it.
          for (Pipe& pipe : pipes) {
              pipe.readEnd.reset();
          }
          endReached.set_value();
      }) {}

PipeReader::~PipeReader() {
    // Cannot fail: the counter of an event that nobody else writes to is far from its limit.
    (void)::eventfd_write(stopEvent.get(), 1);
    thread.join();
}

bool PipeReader::waitForEnd(std::chrono::steady_clock::time_point deadline) const {
    return ended.wait_until(deadline) == std::future_status::ready;
}

void PipeReader::readUntilEnd() {
    while (std::any_of(pipes.begin(), pipes.end(), isOpen) && waitForData()) {
        if (isStopped()) {
            readWhatIsLeft();
            return;
        }
        const std::size_t amount = readWhatIsThere();
        if (amount > 0 && amount < kSmallAmount) {
            pauseBriefly();
        }
    }
}

// Returns whether waiting is possible at all.
bool PipeReader::waitForData() {
    // A pipe that has been closed has the descriptor -1, which poll passes over.
    for (std::size_t i = 0; i < pipes.size(); ++i) {
        waits[i].fd = pipes[i].readEnd.get();
    }
    while (::poll(waits.data(), waits.size(), -1) < 0) {
        if (errno != EINTR && errno != ENOMEM) {
            return false;
        }
    }
    return true;
}

bool PipeReader::isStopped() const {
    return waits.back().revents != 0;
}

// One chunk of each pipe, so that a flood on one of them holds up none of the others. Returns how
// many bytes that were.
std::size_t PipeReader::readWhatIsThere() {
    std::size_t amount = 0;
    for (std::size_t i = 0; i < pipes.size(); ++i) {
        if (waits[i].revents != 0) {
            amount += readChunk(pipes[i]);
        }
    }
    return amount;
}

// A writer of single lines would wake us for each of them: let some more come.
void PipeReader::pauseBriefly() {
    // Ends early where the reader is stopped, which the next wait finds out.
    (void)::ppoll(&waits.back(), 1, &kPause, nullptr);
}

void PipeReader::readWhatIsLeft() {
    for (Pipe& pipe : pipes) {
        readWhatIsWritten(pipe);
    }
}

}  // namespace basekit2::process
