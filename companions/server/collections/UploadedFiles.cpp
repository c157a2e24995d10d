#include "companions/server/collections/UploadedFiles.h"

#include "companions/server/base/PrivateDirectories.h"
#include "companions/server/base/Uuid.h"
#include "companions/server/collections/Directories.h"

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

IncomingFile::IncomingFile(std::filesystem::path incomingPath, std::filesystem::path finalPath)
    : incoming(std::move(incomingPath)),
      final(std::move(finalPath)),
      file(::open(incoming.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kOwnerOnly)) {
    if (!file) {
        throw std::system_error(errno, std::generic_category(), incoming.string());
    }
}

IncomingFile::IncomingFile(IncomingFile&& other) noexcept
    : incoming(std::exchange(other.incoming, {})),
      final(std::move(other.final)),
      file(std::move(other.file)),
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

UploadedFiles::UploadedFiles(const std::filesystem::path& filesDirectory)
    : kept(filesDirectory / "kept"), incoming(filesDirectory / "incoming" / newUuid()) {
    makePrivateDirectories(kept);
    makePrivateDirectories(incoming.parent_path());
    // Of two that start at once, the second one waits here: it must not take the first one's
    // directory for a dead one's before that is locked.
    const basekit2::UniqueFd turn = lockedDirectory(incoming.parent_path(), LOCK_EX);
    removeDeadOnes(incoming.parent_path());
    makePrivateDirectories(incoming);
    incomingLock = lockedDirectory(incoming, LOCK_EX);
}

UploadedFiles::~UploadedFiles() {
    std::error_code ignored;  // Deliberate: the next start tries again.
    std::filesystem::remove_all(incoming, ignored);
}

IncomingFile UploadedFiles::begin(const CollectionId& collection,
                                  const std::filesystem::path& name) const {
    return {incoming / newUuid(), path(collection, name)};
}

std::filesystem::path UploadedFiles::path(const CollectionId& collection,
                                          const std::filesystem::path& name) const {
    return kept / nameForPath(collection.text) / name;
}

void UploadedFiles::remove(const CollectionId& collection) const {
    std::filesystem::remove_all(kept / nameForPath(collection.text));
}

}  // namespace kolvan::server
