#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

namespace kolvan::client {

/// A file that is there whole or not at all, or standard output.
class OutputFile {
public:
    /// @param path empty: standard output
    /// @throws std::system_error
    explicit OutputFile(const std::string& path);
    ~OutputFile();

    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// @throws std::system_error
    void write(std::string_view bytes);

    /// Keeps the file. @throws std::system_error
    void close();

private:
    struct Close {
        void operator()(std::FILE* file) const noexcept { (void)std::fclose(file); }
    };

    const std::string path;
    std::string temporary;  // empty: nothing to remove
    std::unique_ptr<std::FILE, Close> file;
};

}  // namespace kolvan::client
