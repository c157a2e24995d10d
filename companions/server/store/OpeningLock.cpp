#include "companions/server/store/OpeningLock.h"

#include "companions/server/store/StoreError.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>

namespace kolvan::server {

OpeningLock::OpeningLock(const std::string& databaseFile) {
    const std::filesystem::path above = std::filesystem::absolute(databaseFile).parent_path();
    directory.reset(::open(above.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    int locked = -1;
    while (directory && (locked = ::flock(directory.get(), LOCK_EX)) != 0 && errno == EINTR) {
    }
    if (locked != 0) {
        const int number = errno;
        throw StoreError(StoreError::Reason::Failed, "Failed to open " + databaseFile + ": " +
                                                         std::generic_category().message(number));
    }
}

}  // namespace kolvan::server
