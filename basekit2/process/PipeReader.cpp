#include "basekit2/process/PipeReader.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <cstdint>
#include <utility>

namespace basekit2::process {

namespace {

// The capacity of a pipe: pipe(7), 16 pages since Linux 2.6.11. A larger buffer is never filled.
constexpr std::size_t kChunkSize = 65536;

}  // namespace

PipeReader::PipeReader(ref_ptr_t<IPipeReaderCallback> callback, UniqueFd pipeEnd, int stopEvent)
    : receiver(std::move(callback)),
      readEnd(std::move(pipeEnd)),
      stopDescriptor(stopEvent),
      ended(endReached.get_future()),
      thread([this] {
          readUntilEnd();
          readEnd.reset();
          endReached.set_value();
      }) {}

PipeReader::~PipeReader() {
    thread.join();
}

bool PipeReader::waitForEnd(std::chrono::steady_clock::time_point deadline) const {
    return ended.wait_until(deadline) == std::future_status::ready;
}

void PipeReader::readUntilEnd() {
    for (;;) {
        std::array<pollfd, 2> waits{{{readEnd.get(), POLLIN, 0}, {stopDescriptor, POLLIN, 0}}};
        if (::poll(waits.data(), waits.size(), -1) < 0) {
            if (errno == EINTR || errno == ENOMEM) {
                continue;
            }
            return;
        }
        if (waits[1].revents != 0) {
            readWhatIsWritten();
            return;
        }
        if (readChunk() == 0) {
            return;
        }
    }
}

// Only what is in the pipe now: whoever still holds it open may write for ever.
void PipeReader::readWhatIsWritten() {
    int available = 0;
    if (::ioctl(readEnd.get(), FIONREAD, &available) != 0) {
        return;
    }
    auto left = static_cast<std::size_t>(available);
    while (left > 0) {
        const std::size_t got = readChunk();
        if (got == 0) {
            return;
        }
        left -= std::min(left, got);
    }
}

// Returns 0 at the end of the pipe. A failed read cannot be told from it: nothing more will come.
std::size_t PipeReader::readChunk() {
    std::array<char, kChunkSize> buffer;  // not initialised: only what was read is looked at
    ssize_t got = 0;
    do {
        got = ::read(readEnd.get(), buffer.data(), buffer.size());
    } while (got < 0 && errno == EINTR);
    if (got <= 0) {
        return 0;
    }
    try {
        (void)receiver->onData(buffer.data(), static_cast<std::int32_t>(got));
    } catch (...) {
        // Whatever a receiver throws, the pipe has to be read on: a child that cannot write hangs.
    }
    return static_cast<std::size_t>(got);
}

}  // namespace basekit2::process
