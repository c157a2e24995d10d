#pragma once

#include "basekit2/UniqueFd.h"
#include "basekit2/process/IProcess.h"
#include "basekit2/process/PipeReader.h"

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

namespace basekit2::process {

/// A child process over vfork(2), execve(2) and waitid(2).
///
/// Locks: `waitMutex` is taken first, `stateMutex` may be taken under it; no other lock is taken
/// under `stateMutex`, which is never held across anything that blocks for long.
class PosixProcess : public IProcess {
public:
    PosixProcess() = default;

    /// Stops the reading thread. A running child is left alone.
    ~PosixProcess() override;

    result_t start(const std::string& executable, generic_iterator_t<std::string> arguments,
                   const ref_ptr_t<environment_t>& environment, const std::string& workingDirectory,
                   std::uint32_t reserved1, std::uint32_t reserved2,
                   std::int32_t searchPath) override;
    result_t connectOutputStream(std::int32_t streamNumber,
                                 const ref_ptr_t<IPipeReaderCallback>& receiver) override;
    result_t openOutputPipe(const ref_ptr_t<IPipeReaderCallback>& receiver,
                            std::string& childDescriptor) override;
    int wait() override;
    result_t terminate() override;
    const std::string& get_type() const override;

private:
    enum class State { NotStarted, Running, Reaped };

    struct ChildEnd {
        UniqueFd descriptor;  // our side's number of the end that the child writes to
        int target;           // its number in the child
    };

    result_t addPipe(const ref_ptr_t<IPipeReaderCallback>& receiver, int target);
    result_t spawn(const std::string& executable, const std::vector<std::string>& arguments,
                   const ref_ptr_t<environment_t>& environment, const std::string& workingDirectory,
                   bool searchPath);
    result_t startReading();
    void reap();
    void finishReading();
    void stopReading() noexcept;
    void joinKiller();
    void killAfterGrace();

    // Used before and during start(), by one thread.
    std::vector<PipeReader::Pipe> pipes;  // until the reader takes them over
    std::vector<ChildEnd> childEnds;
    int nextAdditional = 3;

    // Fixed from start() on; finished by the first wait() or by the destructor. None without pipes.
    std::unique_ptr<PipeReader> pipeReader;

    std::mutex waitMutex;  // held by wait() from start to end, so that one caller does the waiting
    // Guards startCalled, state, child, exitCode, abandoned and killer.
    std::mutex stateMutex;
    std::condition_variable stateChanged;
    bool startCalled = false;
    State state = State::NotStarted;
    pid_t child = -1;
    int exitCode = kNotStarted;
    bool abandoned = false;  // the object is being destroyed: the killer has to end
    std::thread killer;      // sends SIGKILL to a child that SIGTERM did not end
};

}  // namespace basekit2::process
