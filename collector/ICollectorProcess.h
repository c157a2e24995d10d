#pragma once

namespace cagnt1::operations {

/// One run of the collector executable.
class ICollectorProcess {
public:
    virtual ~ICollectorProcess() = default;

    /// Starts the run. A second call changes nothing and returns false.
    /// @return whether the process runs
    virtual bool start() = 0;

    /// Blocks until the process has ended and its output has been delivered.
    /// @return its exit code; -1 when it was never started
    virtual int wait() = 0;

    /// Asks the process to end. May be called while another thread is in `wait()`.
    /// @return whether it could be asked
    virtual bool terminate() = 0;
};

}  // namespace cagnt1::operations
