#include "tests/support/standin/UploadStore.h"

#include <cerrno>
#include <cstdio>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kolvan::test {

using basekit2::UniqueFd;

namespace {

// No trusted name begins like this.
constexpr const char* kIncomingPrefix = ".incoming-";

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

[[noreturn]] void fail(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
}

int openRoot(const std::filesystem::path& directory) {
    std::filesystem::create_directories(directory);
    const int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) {
        fail(errno, "Failed to open " + directory.string());
    }
    return descriptor;
}

/// Enters a directory without following links, and makes it when it is missing.
UniqueFd enter(int parent, const std::string& name) {
    if (mkdirat(parent, name.c_str(), 0777) != 0 && errno != EEXIST) {
        fail(errno, "Failed to make directory " + name);
    }
    UniqueFd directory(openat(parent, name.c_str(), kDirectoryFlags));
    if (!directory) {
        fail(errno, "Failed to enter directory " + name);
    }
    return directory;
}

}  // namespace

UploadStore::Incoming::Incoming(UploadStore& owner) : store(owner) {
    do {
        name = kIncomingPrefix + std::to_string(getpid()) + "-" + std::to_string(store.counter++);
        file = UniqueFd(openat(store.rootDirectory.get(), name.c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    } while (!file && errno == EEXIST);
    if (!file) {
        fail(errno, "Failed to make " + name);
    }
}

UploadStore::Incoming::~Incoming() {
    if (!kept) {
        unlinkat(store.rootDirectory.get(), name.c_str(), 0);
    }
}

void UploadStore::Incoming::write(std::string_view data) {
    while (!data.empty()) {
        const ssize_t written = ::write(file.get(), data.data(), data.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            fail(errno, "Failed to write " + name);
        }
        data.remove_prefix(static_cast<std::size_t>(written));
        length += static_cast<std::uint64_t>(written);
    }
}

std::filesystem::path UploadStore::Incoming::keep(const std::string& path) {
    const int root = store.rootDirectory.get();
    UniqueFd directory;
    const auto place = [&] { return directory ? directory.get() : root; };
    std::string_view rest = path;
    for (std::size_t slash = rest.find('/'); slash != std::string_view::npos;
         slash = rest.find('/')) {
        directory = enter(place(), std::string(rest.substr(0, slash)));
        rest.remove_prefix(slash + 1);
    }
    if (renameat(root, name.c_str(), place(), std::string(rest).c_str()) != 0) {
        fail(errno, "Failed to store " + path);
    }
    kept = true;
    return store.root / path;
}

UploadStore::UploadStore(const std::filesystem::path& directory)
    : root(directory), rootDirectory(openRoot(directory)) {}

std::unique_ptr<UploadStore::Incoming> UploadStore::begin() {
    return std::unique_ptr<Incoming>(new Incoming(*this));
}

}  // namespace kolvan::test
