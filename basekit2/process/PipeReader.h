#pragma once

#include "basekit2/UniqueFd.h"
#include "basekit2/process/IPipeReaderCallback.h"
#include "basekit2/ref_counted.h"

#include <chrono>
#include <cstddef>
#include <future>
#include <thread>
#include <vector>

#include <poll.h>

namespace basekit2::process {

/// Reads the pipes of one child, all of them on one thread, and hands every chunk to the receiver
/// of its pipe. Pipes that have something to read take turns, a chunk each. What follows a small
/// chunk may wait up to a quarter of a millisecond, so that it is read with what comes meanwhile.
///
/// Threads: the members belong to the owner; the receivers are called on the reading thread only.
class PipeReader {
public:
    /// A pipe and who gets what is read from it.
    struct Pipe {
        ref_ptr_t<IPipeReaderCallback> receiver;  // held until the reader is destroyed
        UniqueFd readEnd;                         // closed as soon as the pipe is at its end
    };

    /// Starts to read.
    /// @throws std::system_error when there is no thread or no descriptor to be had; the pipes are
    ///         closed then
    explicit PipeReader(std::vector<Pipe> pipesToRead);

    /// Stops. What has been written until now is delivered; pipes that others hold open are closed.
    ~PipeReader();

    PipeReader(const PipeReader&) = delete;
    PipeReader& operator=(const PipeReader&) = delete;

    /// Blocks until every pipe is at its end and everything has been delivered, at most until
    /// `deadline`.
    /// @return whether the end was reached
    bool waitForEnd(std::chrono::steady_clock::time_point deadline) const;

private:
    void readUntilEnd();
    bool waitForData();
    bool isStopped() const;
    std::size_t readWhatIsThere();
    void pauseBriefly();
    void readWhatIsLeft();

    std::vector<Pipe> pipes;
    UniqueFd stopEvent;
    std::vector<pollfd> waits;  // one for each pipe, in their order, and the stop event's
    std::promise<void> endReached;
    std::future<void> ended;
    std::thread thread;  // last: it uses all of the above
};

}  // namespace basekit2::process
