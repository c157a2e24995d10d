#include "tests/support/standin/UploadStore.h"

#include "tests/support/standin/SafePath.h"

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kolvan::test {
namespace {

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
FileDescriptor enter(int parent, const std::string& name) {
    if (mkdirat(parent, name.c_str(), 0777) != 0 && errno != EEXIST) {
        fail(errno, "Failed to make directory " + name);
    }
    FileDescriptor directory(openat(parent, name.c_str(), kDirectoryFlags));
    if (directory.get() < 0) {
        fail(errno, "Failed to enter directory " + name);
    }
    return directory;
}

}  // namespace

FileDescriptor::~FileDescriptor() {
    if (descriptor >= 0) {
        close(descriptor);
    }
}

FileDescriptor::FileDescriptor(FileDescriptor&& other) noexcept
    : descriptor(std::exchange(other.descriptor, -1)) {}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    std::swap(descriptor, other.descriptor);
    return *this;
}

UploadStore::Incoming::Incoming(UploadStore& owner) : store(owner) {
    do {
        name = std::string(kIncomingPrefix) + std::to_string(getpid()) + "-" +
               std::to_string(store.counter++);
        file = FileDescriptor(openat(store.rootDirectory.get(), name.c_str(),
                                     O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    } while (file.get() < 0 && errno == EEXIST);
    if (file.get() < 0) {
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
        size += static_cast<std::uint64_t>(written);
    }
}

UploadRecord UploadStore::Incoming::keep(const std::string& remoteDirectory,
                                         const std::string& fileName) {
    const int root = store.rootDirectory.get();
    std::filesystem::path storedPath = store.root;
    FileDescriptor directory;
    for (const std::string& step : safeDirectories(remoteDirectory)) {
        directory = enter(directory.get() < 0 ? root : directory.get(), step);
        storedPath /= step;
    }
    const std::string safe = safeName(fileName);
    storedPath /= safe;
    if (renameat(root, name.c_str(), directory.get() < 0 ? root : directory.get(), safe.c_str()) !=
        0) {
        fail(errno, "Failed to store " + storedPath.string());
    }
    kept = true;
    return {remoteDirectory, fileName, size, storedPath};
}

UploadStore::UploadStore(const std::filesystem::path& directory)
    : root(directory), rootDirectory(openRoot(directory)) {}

std::unique_ptr<UploadStore::Incoming> UploadStore::begin() {
    return std::unique_ptr<Incoming>(new Incoming(*this));
}

}  // namespace kolvan::test
