#pragma once

#include "companions/profiler/base/FileDescriptor.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolvan::test {

/// The fixture of the engines' tests as a child of this process. It is killed at the end of the
/// object, where it has not been waited for.
class FixtureProcess {
public:
    /// Starts it, and returns when it says that it is ready.
    explicit FixtureProcess(const std::vector<std::string>& arguments);
    FixtureProcess(const FixtureProcess&) = delete;
    FixtureProcess& operator=(const FixtureProcess&) = delete;
    ~FixtureProcess();

    pid_t id() const noexcept { return child; }

    void say(const std::string& line);

    /// Whether a line waits to be read.
    bool hasLine() const;

    /// Blocks until it has written a line.
    /// @throws std::runtime_error when it ends before, or writes nothing for a minute
    std::string readLine();

    /// The number in an answer to `line`.
    std::uint64_t ask(const std::string& line);

    /// Ends its standard input, upon which it exits with status 7.
    void closeInput();

    /// Waits for its end. @return what waitpid(2) says
    int wait();

private:
    pid_t child = -1;
    profiler::FileDescriptor input;
    profiler::FileDescriptor output;
    std::string pending;
};

/// The letter that procfs gives for the state of a thread; 0 when it has ended.
char stateOf(pid_t process, pid_t thread);

/// Who traces a thread, by procfs; 0 for nobody.
pid_t tracerOf(pid_t process, pid_t thread);

}  // namespace kolvan::test
