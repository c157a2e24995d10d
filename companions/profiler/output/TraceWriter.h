#pragma once

#include "companions/profiler/base/FileDescriptor.h"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

#include <sys/types.h>

namespace kolvan::profiler {

/// Writes a trace in the Chrome Trace Event format, event by event.
///
/// The file ends in the closing brackets after every flush, and the next flush overwrites them; so
/// it is whole JSON at any moment, also after a kill or on a disk that became full. Memory is
/// bounded by one buffer. Times are microseconds since the beginning of the collection.
///
/// Every member throws `Failure` with `ExitCode::NotWritten` when the file cannot be written.
class TraceWriter {
public:
    /// One series of a counter: its name and value.
    using Series = std::pair<std::string_view, double>;

    /// Creates or empties the file and writes a trace without events for the process `pid`.
    TraceWriter(std::string path, pid_t pid);

    void nameProcess(std::string_view name);
    void nameThread(pid_t thread, std::string_view name);
    void counter(std::string_view name, std::int64_t time, std::initializer_list<Series> series);
    void slice(pid_t thread, std::string_view name, std::int64_t time, std::int64_t length);

    /// Brings everything that was added so far into the file.
    void flush();

    /// Flushes, adds `otherData` (a JSON object) and closes the file. Nothing may follow.
    void finish(std::string_view otherData);

private:
    void add(std::string_view event);
    void write(std::string_view ending);
    bool writeAt(std::uint64_t offset, std::string_view text) const;

    const std::string filePath;
    const std::string pidText;
    FileDescriptor file;
    std::string pending;          // whole events that are not in the file yet
    std::uint64_t eventsEnd = 0;  // where the closing brackets stand in the file
    bool empty = true;            // no event was added yet
};

}  // namespace kolvan::profiler
