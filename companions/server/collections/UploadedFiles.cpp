#include "companions/server/collections/UploadedFiles.h"

#include "companions/server/base/PrivateDirectories.h"
#include "companions/server/collections/Directories.h"

namespace kolvan::server {

UploadedFiles::UploadedFiles(const std::filesystem::path& filesDirectory)
    : kept(filesDirectory / "kept"), incoming(filesDirectory / "incoming") {
    makePrivateDirectories(kept);
}

IncomingFile UploadedFiles::begin(const CollectionId& collection,
                                  const std::filesystem::path& name) const {
    return incoming.begin(path(collection, name));
}

std::filesystem::path UploadedFiles::path(const CollectionId& collection,
                                          const std::filesystem::path& name) const {
    return kept / nameForPath(collection.text) / name;
}

void UploadedFiles::remove(const CollectionId& collection) const {
    std::filesystem::remove_all(kept / nameForPath(collection.text));
}

}  // namespace kolvan::server
