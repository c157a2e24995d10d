#pragma once

#include "companions/profiler/base/FileDescriptor.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace kolvan::profiler {

/// What a just-in-time compiler says about its code: the file /tmp/perf-PID.map, to which it adds a
/// line for each function.
///
/// The file is believed when it belongs to the owner of the process, or to root. It may be read
/// until after the process has ended, when it was there at one refresh() before.
class PerfMap {
public:
    explicit PerfMap(pid_t process) : target(process) {}

    /// Reads what has been added since. A file that has become shorter is read from its beginning.
    void refresh();

    /// @return the name of the function that was the last to take this place; nothing where none
    /// did
    std::optional<std::string_view> find(std::uint64_t address) const;

private:
    struct Function {
        std::uint64_t end = 0;
        std::string name;
    };

    void open();
    void add(std::string_view line);

    const pid_t target;
    FileDescriptor file;
    std::uint64_t readBytes = 0;
    std::string unfinished;                       // a line whose end has not been written yet
    std::map<std::uint64_t, Function> functions;  // by first address, without overlaps
};

}  // namespace kolvan::profiler
