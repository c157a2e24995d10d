#include "companions/server/base/DataDirectory.h"

#include "companions/server/base/PrivateDirectories.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <system_error>

#include <sys/stat.h>
#include <unistd.h>

namespace kolvan::server {

namespace {

namespace fs = std::filesystem;

constexpr mode_t kOfOthers = 0077;

[[noreturn]] void fail(const std::string& text, int number) {
    throw std::runtime_error(text + ": " + std::generic_category().message(number));
}

std::string octal(mode_t mode) {
    std::array<char, 16> text{};
    (void)std::snprintf(text.data(), text.size(), "%04o", mode);
    return text.data();
}

}  // namespace

fs::path DataDirectory::usualPlace() {
    // NOLINTBEGIN(concurrency-mt-unsafe): read at the start, and nobody changes the environment
    const char* const state = std::getenv("XDG_STATE_HOME");
    const char* const home = std::getenv("HOME");
    // NOLINTEND(concurrency-mt-unsafe)
    // The rules for base directories of the XDG say that a relative one is not to be used.
    if (state != nullptr && fs::path(state).is_absolute()) {
        return fs::path(state) / "kolvan-server";
    }
    if (home == nullptr || !fs::path(home).is_absolute()) {
        throw std::runtime_error("There is no home directory to keep data in: use --data");
    }
    return fs::path(home) / ".local" / "state" / "kolvan-server";
}

DataDirectory::DataDirectory(const fs::path& directory)
    : root(fs::absolute(directory).lexically_normal()) {
    makePrivateDirectories(root);
    struct stat status {};
    if (::stat(root.c_str(), &status) != 0) {
        fail(root.string(), errno);
    }
    if (!S_ISDIR(status.st_mode)) {
        throw std::runtime_error(root.string() + " is no directory");
    }
    if (status.st_uid != ::geteuid()) {
        throw std::runtime_error(root.string() + " belongs to another user");
    }
    // Not mended here: who has named a directory of other things by mistake would lose its rights.
    if ((status.st_mode & kOfOthers) != 0) {
        throw std::runtime_error(root.string() + " is open to others (mode " +
                                 octal(status.st_mode & 07777U) +
                                 "): the server's data are for its user alone, mode 0700");
    }
}

fs::path DataDirectory::room(const char* name) const {
    fs::path directory = root / name;
    makePrivateDirectories(directory);
    return directory;
}

}  // namespace kolvan::server
