#include "tests/fuzz/Jail.h"

#include "tests/fuzz/Fuzz.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kolvan::fuzz {

namespace {

using basekit2::UniqueFd;

constexpr int kSkipped = 4;

// Enough for what the archives of a corpus hold; an archive that swells fills it at once.
constexpr const char* kDiskSize = "8m";
constexpr const char* kDiskEntries = "2000";

// Without a name anywhere: it goes with its descriptor. Devices on it do nothing.
UniqueFd makeDisk() {
    const UniqueFd type(::fsopen("tmpfs", FSOPEN_CLOEXEC));
    (void)::fsconfig(type.get(), FSCONFIG_SET_STRING, "size", kDiskSize, 0);
    (void)::fsconfig(type.get(), FSCONFIG_SET_STRING, "nr_inodes", kDiskEntries, 0);
    (void)::fsconfig(type.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0);
    return UniqueFd(::fsmount(type.get(), FSMOUNT_CLOEXEC, MOUNT_ATTR_NODEV | MOUNT_ATTR_NOSUID));
}

bool write(const std::string& file, const std::string& content) {
    std::ofstream stream(file);
    stream << content;
    return static_cast<bool>(stream.flush());
}

// Who is not root becomes it in a user namespace, as far as this process goes.
bool becomeRoot() {
    const std::string user = std::to_string(::geteuid());
    const std::string group = std::to_string(::getegid());
    return ::geteuid() == 0 || (::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 &&
                                write("/proc/self/uid_map", "0 " + user + " 1") &&
                                write("/proc/self/setgroups", "deny") &&
                                write("/proc/self/gid_map", "0 " + group + " 1"));
}

bool changeRoot(const UniqueFd& directory) {
    const UniqueFd workingDirectory(::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    return ::fchdir(directory.get()) == 0 && ::chroot(".") == 0 &&
           ::fchdir(workingDirectory.get()) == 0;
}

// An archive may have left something that cannot be removed.
bool emptyRoot() {
    std::error_code failed;
    for (const auto& entry : std::filesystem::directory_iterator("/", failed)) {
        if (!failed) {
            std::filesystem::remove_all(entry.path(), failed);
        }
    }
    return !failed && ::chmod("/", 0755) == 0;
}

}  // namespace

Jail::Jail() : outerRoot(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    const bool admitted = becomeRoot();
    if (admitted) {
        disk = makeDisk();
    }
    if (!admitted || !changeRoot(disk) || !changeRoot(outerRoot)) {
        std::perror("Neither root nor user namespaces that may mount disks");
        std::_Exit(kSkipped);
    }
}

void Jail::run(const std::function<void()>& body) {
    require(changeRoot(disk), "the disk can be the root");
    body();
    const bool emptied = emptyRoot();
    require(changeRoot(outerRoot), "the root is back");
    if (!emptied) {
        disk = makeDisk();
    }
}

}  // namespace kolvan::fuzz
