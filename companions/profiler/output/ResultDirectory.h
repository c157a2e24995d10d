#pragma once

#include "companions/profiler/base/FileDescriptor.h"

#include <string>

namespace kolvan::profiler {

/// The result directory of one collection, held so that no second collection uses it meanwhile. The
/// results lie in a directory of their own below it: `data.0`, or the next number that is free, so
/// that no collection replaces the results of an earlier one.
class ResultDirectory {
public:
    /// Opens `path`, creating it when it is missing, and creates the data directory.
    /// @throws Failure with `ExitCode::NotWritten` when that is impossible, with
    ///         `ExitCode::Failed` when another collection runs there
    explicit ResultDirectory(const std::string& path);

    /// Descriptor of the directory; valid as long as this object lives.
    int descriptor() const noexcept { return directory.get(); }

    /// Path of the file `name` in the data directory.
    std::string dataFile(const std::string& name) const { return dataPath + "/" + name; }

private:
    FileDescriptor directory;
    std::string dataPath;
};

}  // namespace kolvan::profiler
