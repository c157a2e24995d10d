#include "companions/client/OutputFile.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kolvan::client {

namespace {

[[noreturn]] void fail(const std::string& path) {
    throw std::system_error(errno, std::generic_category(),
                            path.empty() ? "standard output" : path);
}

/// What a file gets that is made without further ado.
mode_t usualMode() {
    const mode_t mask = ::umask(0);
    (void)::umask(mask);
    return 0666 & ~mask;
}

}  // namespace

OutputFile::OutputFile(const std::string& filePath) : path(filePath) {
    if (path.empty()) {
        return;
    }
    std::string name = path + ".XXXXXX";
    const int descriptor = ::mkostemp(name.data(), O_CLOEXEC);
    if (descriptor < 0) {
        fail(path);
    }
    temporary = name;
    file.reset(::fdopen(descriptor, "wb"));
    if (file == nullptr || ::fchmod(descriptor, usualMode()) != 0) {
        fail(path);
    }
}

OutputFile::~OutputFile() {
    if (!temporary.empty()) {
        std::error_code error;
        std::filesystem::remove(temporary, error);  // half a file, and nobody is left to tell
    }
}

void OutputFile::write(std::string_view bytes) {
    std::FILE* const target = file ? file.get() : stdout;
    if (std::fwrite(bytes.data(), 1, bytes.size(), target) != bytes.size()) {
        fail(path);
    }
}

void OutputFile::close() {
    if (!file) {
        if (std::fflush(stdout) != 0) {
            fail(path);
        }
        return;
    }
    if (std::fclose(file.release()) != 0) {
        fail(path);
    }
    std::filesystem::rename(temporary, path);
    temporary.clear();
}

}  // namespace kolvan::client
