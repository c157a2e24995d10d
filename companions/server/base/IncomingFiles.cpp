#include "companions/server/base/IncomingFiles.h"

#include "companions/server/base/PrivateDirectories.h"
#include "companions/server/base/Uuid.h"

#include <cerrno>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace kolvan::server {

namespace {

constexpr mode_t kOwnerOnly = 0600;

/// A directory with a lock as flock(2) has it, which goes with the process; none when another one
/// has it and `how` does not wait.
basekit2::UniqueFd lockedDirectory(const std::filesystem::path& directory, int how) {
    basekit2::UniqueFd opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    while (opened && ::flock(opened.get(), how) != 0) {
        if (errno == EWOULDBLOCK) {
            return {};
        }
        if (errno != EINTR) {
            opened.reset();
        }
    }
    if (!opened) {
        throw std::system_error(errno, std::generic_category(), directory.string());
    }
    return opened;
}

void removeDeadOnes(const std::filesystem::path& directory) {
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        if (lockedDirectory(entry.path(), LOCK_EX | LOCK_NB)) {
            std::filesystem::remove_all(entry.path());
        }
    }
}

}  // namespace

IncomingFile::IncomingFile(std::filesystem::path incomingPath, std::filesystem::path finalPath,
                           std::atomic<std::uint64_t>& receivedBytes)
    : incoming(std::move(incomingPath)),
      final(std::move(finalPath)),
      file(::open(incoming.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kOwnerOnly)),
      received(receivedBytes) {
    if (!file) {
        throw std::system_error(errno, std::generic_category(), incoming.string());
    }
}

IncomingFile::IncomingFile(IncomingFile&& other) noexcept
    : incoming(std::exchange(other.incoming, {})),
      final(std::move(other.final)),
      file(std::move(other.file)),
      received(other.received),
      written(other.written) {}

IncomingFile::~IncomingFile() {
    if (!incoming.empty()) {
        // Deliberate: what cannot be removed now is removed by the next start.
        (void)::unlink(incoming.c_str());
    }
}

void IncomingFile::write(std::string_view bytes) {
    writeAll(file.get(), bytes, incoming);
    written += bytes.size();
    received += bytes.size();
}

std::uint64_t IncomingFile::keep() {
    file.reset();
    makePrivateDirectories(final.parent_path());
    if (::rename(incoming.c_str(), final.c_str()) != 0) {
        throw std::system_error(errno, std::generic_category(), final.string());
    }
    incoming.clear();
    return written;
}

IncomingDirectory::IncomingDirectory(const std::filesystem::path& parent)
    : directory(parent / newUuid()) {
    makePrivateDirectories(parent);
    // Of two that start at once, the second one waits here: it must not take the first one's
    // directory for a dead one's before that is locked.
    const basekit2::UniqueFd turn = lockedDirectory(parent, LOCK_EX);
    removeDeadOnes(parent);
    makePrivateDirectories(directory);
    lock = lockedDirectory(directory, LOCK_EX);
}

IncomingDirectory::~IncomingDirectory() {
    std::error_code ignored;  // Deliberate: the next start tries again.
    std::filesystem::remove_all(directory, ignored);
}

IncomingFile IncomingDirectory::begin(std::filesystem::path finalPath) const {
    return {directory / newUuid(), std::move(finalPath), receivedBytes};
}

void writeAll(int descriptor, std::string_view bytes, const std::filesystem::path& path) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), path.string());
        }
        bytes.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0U);
    }
}

}  // namespace kolvan::server
