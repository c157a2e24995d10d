#include "companions/server/store/Backup.h"

#include "basekit2/UniqueFd.h"
#include "companions/server/store/StoreError.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

namespace kolvan::server {

namespace {

[[noreturn]] void fail(const std::string& file, int number) {
    throw StoreError(
        number == ENOSPC ? StoreError::Reason::Full : StoreError::Reason::Failed,
        "Failed to write the backup " + file + ": " + std::generic_category().message(number));
}

/// A file beside the wanted one, which goes away with its owner.
class PartFile {
public:
    explicit PartFile(const std::string& file) : name(file + ".XXXXXX") {
        // For this user alone from the beginning.
        if (!basekit2::UniqueFd(::mkostemp(name.data(), O_CLOEXEC))) {
            fail(file, errno);
        }
    }
    ~PartFile() { (void)::unlink(name.c_str()); /* it would only take up room */ }

    PartFile(const PartFile&) = delete;
    PartFile& operator=(const PartFile&) = delete;

    std::string name;
};

void sync(const std::string& file, const std::string& wanted, int flags) {
    const basekit2::UniqueFd opened(::open(file.c_str(), O_RDONLY | O_CLOEXEC | flags));
    if (!opened || ::fsync(opened.get()) != 0) {
        fail(wanted, errno);
    }
}

}  // namespace

void backUpTo(const std::string& file, Connection& database) {
    const std::filesystem::path parent = std::filesystem::path(file).parent_path();
    const std::string directory = parent.empty() ? "." : parent.string();
    const PartFile part(file);
    {
        Connection copy(part.name, Connection::Access::ReadWrite);
        database.copyTo(copy);
        // The copy says of itself that it has a journal beside it; a backup is one file.
        copy.run("PRAGMA journal_mode=DELETE");
    }
    sync(part.name, file, 0);
    // Unlike renaming, this never replaces a backup that is there.
    if (::link(part.name.c_str(), file.c_str()) != 0) {
        fail(file, errno);
    }
    sync(directory, file, O_DIRECTORY);
}

}  // namespace kolvan::server
