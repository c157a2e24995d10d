#pragma once

#include "basekit2/UniqueFd.h"
#include "basekit2/process/IPipeReaderCallback.h"
#include "basekit2/ref_counted.h"

#include <chrono>
#include <cstddef>
#include <future>
#include <thread>

namespace basekit2::process {

/// Reads one pipe on a thread of its own and hands every chunk to one callback.
///
/// Threads: the members belong to the owner; the callback is called on the reading thread only.
class PipeReader {
public:
    /// Starts to read.
    /// @param callback gets the chunks; a reference is kept until the reader is destroyed
    /// @param pipeEnd the reading end
    /// @param stopEvent a descriptor that becomes readable when the reader is to stop; it is not
    ///        read, may be shared by several readers and must outlive this one
    /// @throws std::system_error when there is no thread to be had
    PipeReader(ref_ptr_t<IPipeReaderCallback> callback, UniqueFd pipeEnd, int stopEvent);

    /// Joins the reading thread, which must have been told to stop unless its pipe is at its end.
    ~PipeReader();

    PipeReader(const PipeReader&) = delete;
    PipeReader& operator=(const PipeReader&) = delete;

    /// Blocks until the pipe is at its end and everything has been delivered, at most until
    /// `deadline`.
    /// @return whether the end was reached
    bool waitForEnd(std::chrono::steady_clock::time_point deadline) const;

private:
    void readUntilEnd();
    void readWhatIsWritten();
    std::size_t readChunk();

    ref_ptr_t<IPipeReaderCallback> receiver;
    UniqueFd readEnd;
    int stopDescriptor;
    std::promise<void> endReached;
    std::future<void> ended;
    std::thread thread;  // last: it uses all of the above
};

}  // namespace basekit2::process
