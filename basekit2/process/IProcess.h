#pragma once

#include "basekit2/generic_iterator.h"
#include "basekit2/object_interface.h"
#include "basekit2/process/IPipeReaderCallback.h"
#include "basekit2/ref_counted.h"
#include "basekit2/result.h"

#include <cstdint>
#include <string>
#include <vector>

namespace basekit2::process {

/// The environment of a child: one "NAME=VALUE" text an entry.
class environment_t : public serializable_object_interface_t {
public:
    explicit environment_t(std::vector<std::string> entries) : variables(std::move(entries)) {}

    const std::vector<std::string>& get_variables() const noexcept { return variables; }
    const std::string& get_type() const override;

private:
    std::vector<std::string> variables;
};

/// One child process, from its description to its exit code.
///
/// Life: create, connect streams and open additional pipes, `start()` once, `wait()`. The object
/// keeps the receivers of the output alive. Releasing it leaves a running child alone. Whoever
/// starts a child waits for it; otherwise the ended child stays a zombie until the program ends.
///
/// A child gets descriptor 0 on the null device, 1 and 2 on the connected streams (or the
/// parent's own where none is connected), the additional pipes from 3 upward and nothing else;
/// default signal dispositions, an empty signal mask, the parent's process group and the
/// parent's original limit of open descriptors (see DescriptorLimit.h).
///
/// The pipes of one child are read on one thread, which calls all of their callbacks; a child
/// without pipes needs none.
///
/// Threads: `wait()` and `terminate()` may be called from any threads at once, also during each
/// other. The calls before `start()` and `start()` itself belong to one thread.
class IProcess : public serializable_object_interface_t {
public:
    /// What `wait()` reports for a child that was never started.
    static constexpr int kNotStarted = -1;

    /// Added to a signal's number when a child was killed by it, as a shell reports it.
    static constexpr int kKilledBySignal = 128;

    /// Creates a process object with one reference, which the returned pointer owns.
    /// @throws std::bad_alloc
    static ref_ptr_t<IProcess> create();

    /// Starts the child and the thread that reads its pipes. The program's failure to be executed
    /// is the result of this call.
    /// @param executable path of the program; the child sees it as its argument 0
    /// @param arguments the child's arguments from 1 on; walked to the end
    /// @param environment the child's environment; empty: a copy of the parent's
    /// @param workingDirectory directory to start in; empty: the parent's
    /// @param reserved1,reserved2 must be 0; anything else is refused with `EINVAL`
    /// @param searchPath 1: an `executable` without a slash is looked for along PATH; 0: never
    /// @return no error, or the reason: nothing runs then, and the pipes are closed. `EALREADY`
    ///         when it was called before
    virtual result_t start(const std::string& executable, generic_iterator_t<std::string> arguments,
                           const ref_ptr_t<environment_t>& environment,
                           const std::string& workingDirectory, std::uint32_t reserved1,
                           std::uint32_t reserved2, std::int32_t searchPath) = 0;

    /// Connects the child's standard output (1) or standard error (2) to `receiver`, which gets
    /// everything that is written to it.
    /// @return no error, or why there is no pipe; `EINVAL` for another stream
    virtual result_t connectOutputStream(std::int32_t streamNumber,
                                         const ref_ptr_t<IPipeReaderCallback>& receiver) = 0;

    /// Opens one more pipe that the child writes to and `receiver` gets.
    /// @param childDescriptor receives the descriptor's number in the child, in decimal: "3" for
    ///        the first one, then counting up; unchanged on failure
    /// @return no error, or why there is no pipe
    virtual result_t openOutputPipe(const ref_ptr_t<IPipeReaderCallback>& receiver,
                                    std::string& childDescriptor) = 0;

    /// Blocks until the child has ended and its pipes have been read to their end. When another
    /// process still holds a pipe open, everything that was written until then is read during a
    /// short grace time and the rest is left. No callback is called after it has returned.
    /// @return the child's exit code; `kKilledBySignal` plus the signal's number when a signal
    ///         killed it; `kNotStarted`, at once, when it was never started
    virtual int wait() = 0;

    /// Asks the child to end (SIGTERM) and makes sure that it does (SIGKILL after a grace time,
    /// which the caller does not wait for). A child that has been waited for is never signalled,
    /// whoever has its process number now.
    /// @return no error when the child was asked or has ended already; `ESRCH` when it was never
    ///         started; otherwise why it could not be asked
    virtual result_t terminate() = 0;
};

}  // namespace basekit2::process
