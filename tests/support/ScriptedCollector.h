#pragma once

#include "basekit2/UniqueFd.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace kolvan::test {

/// Runs one of the system's tools, which is found on the search path; its output is dropped.
/// @throws std::runtime_error when it cannot be run or fails
void runTool(const std::vector<std::string>& words);

/// Archives that hold the scripted collector as `kolvan-trcap`, two directories deep. The collector
/// does what its arguments or the lines of its option file say; the head of its source
/// (tests/endtoend/scripted_collector.cpp) lists the instructions.
namespace package {

/// What the archive holds.
struct Content {
    std::string root = "collector";                         ///< first directory
    std::string inner = "bin";                              ///< second directory
    std::string version = "Scripted collector\nbuild 1\n";  ///< what "--version" prints
    bool withCollector = true;                              ///< false: only the version text
    unsigned mode = 0755;                                   ///< of the collector
    std::vector<std::string> moreFiles;  ///< names below the first directory, empty files
};

/// Packs an archive with the system's tar.
/// @throws std::runtime_error when that fails
void make(const std::filesystem::path& archive, const Content& content);

/// Unpacks an archive into a directory, which is made when it is missing.
void unpack(const std::filesystem::path& archive, const std::filesystem::path& directory);

}  // namespace package

/// Text that "flood" writes.
std::string floodText(std::uint64_t bytes);

/// Text that "lines" writes.
std::string numberedLines(int count, const std::string& prefix);

/// A named pipe that holds runs of the collector in "wait" or "heir" until it is released.
///
/// Threads: one thread uses it.
class Leash {
public:
    /// Makes the pipe.
    /// @param fifo its path, which must not exist
    explicit Leash(const std::filesystem::path& fifo);

    /// Path to name in an instruction.
    std::string path() const { return fifo; }

    /// Lets go whoever waits now; whoever comes later does not wait.
    void release();

private:
    std::filesystem::path fifo;
    basekit2::UniqueFd writeEnd;
};

}  // namespace kolvan::test
