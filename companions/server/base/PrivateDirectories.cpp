#include "companions/server/base/PrivateDirectories.h"

#include <cerrno>
#include <system_error>

#include <sys/stat.h>

namespace kolvan::server {

namespace {

constexpr mode_t kForItsUserAlone = 0700;

bool make(const std::filesystem::path& directory) {
    return ::mkdir(directory.c_str(), kForItsUserAlone) == 0 || errno == EEXIST;
}

}  // namespace

void makePrivateDirectories(const std::filesystem::path& directory) {
    if (make(directory)) {
        return;
    }
    if (errno == ENOENT && directory.has_relative_path()) {
        makePrivateDirectories(directory.parent_path());
        if (make(directory)) {
            return;
        }
    }
    throw std::system_error(errno, std::generic_category(),
                            "Failed to make the directory " + directory.string());
}

}  // namespace kolvan::server
