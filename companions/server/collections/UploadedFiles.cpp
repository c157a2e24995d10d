#include "companions/server/collections/UploadedFiles.h"

#include "companions/server/base/Uuid.h"
#include "companions/server/collections/Directories.h"

#include <cerrno>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace kolvan::server {

namespace {

constexpr mode_t kOwnerOnly = 0600;

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

UploadedFiles::UploadedFiles(std::filesystem::path filesDirectory)
    : kept(filesDirectory / "kept"), incoming(filesDirectory / "incoming") {
    std::filesystem::remove_all(incoming);
    makePrivateDirectories(kept);
    makePrivateDirectories(incoming);
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
