#pragma once

#include "basekit2/UniqueFd.h"
#include "basekit2/process/IPipeReaderCallback.h"
#include "basekit2/process/IProcess.h"
#include "basekit2/ref_counted.h"
#include "tests/support/Gate.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace kolvan::test {

/// Ends the test program: something that has to end did not, so nothing can be cleaned up.
[[noreturn]] void giveUp(const char* what);

/// Runs `work` on a thread of its own and hands back what it returns or throws. Gives up when it
/// does not end.
template <typename Work>
auto withinDeadline(Work work) {
    auto result = std::async(std::launch::async, std::move(work));
    if (result.wait_for(kDeadline) != std::future_status::ready) {
        giveUp("a call that has to return did not");
    }
    return result.get();
}

/// Repeats `condition` until it holds.
/// @return whether it held before the deadline
bool eventually(const std::function<bool()>& condition);

/// What came over one channel, chunk by chunk. Any threads.
class Transcript {
public:
    void append(const std::string& chunk);

    /// Everything so far, joined.
    std::string text() const;
    std::vector<std::string> chunks() const;

    /// Blocks until the text contains `part`.
    /// @return whether it came before the deadline
    bool waitFor(const std::string& part) const;

private:
    std::string joined() const;

    mutable std::mutex chunksMutex;  // guards received
    mutable std::condition_variable changed;
    std::vector<std::string> received;
};

/// Keeps every chunk that it gets.
class RecordingReader : public basekit2::process::IPipeReaderCallback, public Transcript {
public:
    basekit2::result_t onData(const char* data, std::int32_t length) override;
    const std::string& get_type() const override;
};

/// Keeps every chunk that it gets, and throws at each.
class ThrowingReader : public RecordingReader {
public:
    basekit2::result_t onData(const char* data, std::int32_t length) override;
};

/// Compares what it gets with the pattern of one channel of the test child.
class PatternReader : public basekit2::process::IPipeReaderCallback {
public:
    explicit PatternReader(int channelNumber) : channel(channelNumber) {}

    basekit2::result_t onData(const char* data, std::int32_t length) override;
    const std::string& get_type() const override;

    /// Bytes that came, all of them as expected; nothing when there was a wrong one.
    std::optional<std::uint64_t> matchingBytes() const;

private:
    const int channel;
    mutable std::mutex stateMutex;  // guards received and different
    std::uint64_t received = 0;
    bool different = false;
};

/// The argument list that `IProcess::start` takes. `list` must outlive it.
basekit2::generic_iterator_t<std::string> argumentsOf(const std::vector<std::string>& list);

/// Starts `executable` with the settings that most tests use: our environment, no PATH search.
basekit2::result_t startProgram(basekit2::process::IProcess& process, const std::string& executable,
                                const std::vector<std::string>& arguments,
                                const std::string& workingDirectory = "");

/// A run of the test child whose three channels are recorded.
class ChildRun {
public:
    ChildRun();

    basekit2::result_t start(const std::vector<std::string>& actions,
                             const std::string& workingDirectory = "");

    /// Waits for the child; gives up when the wait does not end.
    int wait();

    basekit2::ref_ptr_t<RecordingReader> out;
    basekit2::ref_ptr_t<RecordingReader> err;
    basekit2::ref_ptr_t<RecordingReader> feedback;
    basekit2::ref_ptr_t<basekit2::process::IProcess> process;
};

/// What the test child says on its standard output when it is started with `actions`.
std::string outputOf(const std::vector<std::string>& actions);

/// A child's report of its descriptors with names for the pipes, in the order in which they appear:
/// "pipe A", "pipe B" and so on. The mode of descriptor 0 is dropped.
std::string withNamedPipes(const std::string& report);

/// The report, with named pipes, of a child that holds what it has to and nothing else.
inline const std::string kCleanDescriptors = "0 /dev/null\n1 w pipe A\n2 w pipe B\n3 w pipe C\n";

/// A FIFO that children wait on until it is released.
class Fifo {
public:
    explicit Fifo(std::string file);
    ~Fifo();

    Fifo(const Fifo&) = delete;
    Fifo& operator=(const Fifo&) = delete;

    const std::string& path() const { return name; }

    /// Lets everybody go who waits on it or opens it later.
    void release();

private:
    std::string name;
    basekit2::UniqueFd end;
};

/// Holds this process's descriptors in a chosen arrangement: of the numbers below `limit`, which
/// becomes the soft limit, exactly `room` are free.
class CrowdedDescriptors {
public:
    explicit CrowdedDescriptors(std::size_t room);
    ~CrowdedDescriptors();

    CrowdedDescriptors(const CrowdedDescriptors&) = delete;
    CrowdedDescriptors& operator=(const CrowdedDescriptors&) = delete;

private:
    unsigned long formerLimit;
    std::vector<basekit2::UniqueFd> fillers;
};

/// Sets PATH while it lives.
class PathVariable {
public:
    explicit PathVariable(const std::string& value) : former(::getenv("PATH")) {
        ::setenv("PATH", value.c_str(), 1);
    }
    ~PathVariable() { ::setenv("PATH", former.c_str(), 1); }

    PathVariable(const PathVariable&) = delete;
    PathVariable& operator=(const PathVariable&) = delete;

private:
    std::string former;
};

/// Our open descriptors and what they refer to.
std::map<int, std::string> openDescriptors();

/// True when a process with that number exists and has not ended.
bool isRunning(pid_t process);

/// Waits for the end of a child of ours that no process object waits for.
/// @return its exit code, or -1 when it did not end by itself
int exitCodeOfOurChild(pid_t child);

/// Waits for the end of a grandchild whose parent has gone, which makes it a child of ours.
/// @return its process number, or -1 when there is no child at all
pid_t reapGrandchild();

/// A test after which no descriptor, thread or child may be left that was not there before. It is
/// judged after the members of the derived fixtures have been destroyed.
class AuditedProcessTest : public ::testing::Test {
protected:
    AuditedProcessTest();
    ~AuditedProcessTest() override;

private:
    std::map<int, std::string> formerDescriptors;
    std::size_t formerThreads;
};

}  // namespace kolvan::test
