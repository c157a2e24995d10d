#pragma once

#include "companions/profiler/output/OutputFile.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::profiler {

/// A gzip file that is compressed piece by piece. The same pieces make the same bytes: neither a
/// time nor a name is kept in it. Like every `OutputFile` it is there whole or not at all.
class GzipFile {
public:
    /// Creates or replaces the file.
    /// @throws Failure with `ExitCode::NotWritten`
    explicit GzipFile(std::string path);
    ~GzipFile();

    /// Appends `bytes`.
    /// @throws Failure with `ExitCode::NotWritten`
    void write(std::string_view bytes);

    /// Ends the compressed stream and keeps the file. Nothing may follow.
    /// @throws Failure with `ExitCode::NotWritten`
    void close();

private:
    struct Stream;  // of zlib, which nobody else needs to know

    void compress(std::string_view bytes, bool last);

    OutputFile file;
    std::vector<char> buffer;
    const std::unique_ptr<Stream> stream;
};

}  // namespace kolvan::profiler
