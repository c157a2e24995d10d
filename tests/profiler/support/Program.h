#pragma once

#include "companions/profiler/base/FileDescriptor.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolvan::test {

/// Both ends of a pipe, which no program inherits.
struct Pipe {
    Pipe();

    profiler::FileDescriptor readEnd;
    profiler::FileDescriptor writeEnd;
};

/// One run of a program: standard output, standard error and descriptor 3 are kept. The destructor
/// kills a program that still runs.
class Program {
public:
    using Arguments = std::vector<std::string>;

    static constexpr std::chrono::seconds kPatience{60};  ///< more than enough for most programs

    /// @param patience how long it may take to its end
    /// @throws std::runtime_error when it cannot be started
    explicit Program(const Arguments& arguments, const char* executable = KOLVAN_TRCAP_PATH,
                     std::chrono::seconds patience = kPatience);
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program();

    pid_t id() const { return child; }
    const std::string& output() const { return texts[0]; }
    const std::string& errors() const { return texts[1]; }
    const std::string& feedback() const { return texts[2]; }

    /// Sends it a signal. @throws std::runtime_error when it has ended
    void signal(int number) const;
    void stopReadingFeedback() { readEnds[2] = profiler::FileDescriptor(); }

    /// Reads until `text` was seen on `stream` (1, 2 or 3) `times` times.
    /// @throws std::runtime_error when the program ends before, or the patience does
    void waitFor(std::size_t stream, const std::string& text, int times = 1);
    void waitForStart() { waitFor(3, "state=\"started\""); }

    /// Reads everything to the end and waits. @return the exit status, 128 + n for a signal
    int finish();

private:
    bool readSome();

    pid_t child = -1;
    std::array<profiler::FileDescriptor, 3> readEnds;
    std::array<std::string, 3> texts;
    std::optional<int> exitCode;
    const std::chrono::steady_clock::time_point deadline;
};

}  // namespace kolvan::test
