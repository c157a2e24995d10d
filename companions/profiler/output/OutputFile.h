#pragma once

#include "companions/profiler/base/FileDescriptor.h"

#include <string>
#include <string_view>

namespace kolvan::profiler {

/// Creates or empties the file `path` for writing. A link in its place is not followed.
/// @throws Failure with `ExitCode::NotWritten`
FileDescriptor createFile(const std::string& path);

/// Ends the run because the file `path` could not be written; `error` is the errno of why.
[[noreturn]] void failWriting(const std::string& path, int error);

/// A file of the results that is there whole or not at all: unless `close()` returned, it is
/// removed when this object goes, since half of it is of no use to anybody.
class OutputFile {
public:
    /// Creates or replaces the file.
    /// @throws Failure with `ExitCode::NotWritten`
    explicit OutputFile(std::string path);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile();

    /// Appends `bytes`.
    /// @throws Failure with `ExitCode::NotWritten`
    void write(std::string_view bytes);

    /// Keeps the file. Nothing may follow.
    /// @throws Failure with `ExitCode::NotWritten`
    void close();

    const std::string& path() const noexcept { return filePath; }

private:
    const std::string filePath;
    FileDescriptor file;
    bool whole = false;
};

/// Creates or replaces the file `path` with `text`.
/// @throws Failure with `ExitCode::NotWritten`
void writeTextFile(const std::string& path, std::string_view text);

}  // namespace kolvan::profiler
