#include "basekit2/process/SpawnPlan.h"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <cstring>
#include <new>

namespace basekit2::process {

namespace {

// The calls that fill in a plan fail for want of memory only.
void requireSuccess(int result) {
    if (result != 0) {
        throw std::bad_alloc();
    }
}

std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) {
        // posix_spawn takes char* for the sake of old programs and promises not to write.
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

SpawnPlan::SpawnPlan() : actions(), attributes() {
    requireSuccess(::posix_spawn_file_actions_init(&actions));
    if (::posix_spawnattr_init(&attributes) != 0) {
        ::posix_spawn_file_actions_destroy(&actions);
        throw std::bad_alloc();
    }
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    // Not sigfillset(3): it leaves out the C library's two own signals, which the library then sets
    // to be ignored in the child.
    std::memset(&all, 0xFF, sizeof(all));
    ::posix_spawnattr_setsigmask(&attributes, &none);
    ::posix_spawnattr_setsigdefault(&attributes, &all);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
}

SpawnPlan::~SpawnPlan() {
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
}

void SpawnPlan::mapDescriptor(int source, int target) {
    requireSuccess(::posix_spawn_file_actions_adddup2(&actions, source, target));
    firstClosed = std::max(firstClosed, target + 1);
}

void SpawnPlan::setWorkingDirectory(const std::string& directory) {
    requireSuccess(::posix_spawn_file_actions_addchdir_np(&actions, directory.c_str()));
}

result_t SpawnPlan::spawn(const std::string& executable, const std::vector<std::string>& arguments,
                          const std::vector<std::string>* environment, bool searchPath,
                          pid_t& child) {
    requireSuccess(::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0));
    requireSuccess(::posix_spawn_file_actions_addclosefrom_np(&actions, firstClosed));
    const auto argumentPointers = pointersTo(arguments);
    const auto environmentPointers =
        environment != nullptr ? pointersTo(*environment) : std::vector<char*>();
    char* const* const environmentStart =
        environment != nullptr ? environmentPointers.data() : environ;
    const auto start = searchPath ? &::posix_spawnp : &::posix_spawn;
    return result_t::from_errno(start(&child, executable.c_str(), &actions, &attributes,
                                      argumentPointers.data(), environmentStart));
}

}  // namespace basekit2::process
