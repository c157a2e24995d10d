#pragma once

#include "basekit2/result.h"

#include <spawn.h>
#include <sys/types.h>
#include <string>
#include <vector>

namespace basekit2::process {

/// What one child is started with: its descriptors, directory and signals.
///
/// The child's descriptor 0 is the null device; descriptors that are not laid out here and lie
/// above the highest one that is are closed in the child, whatever other threads have open.
class SpawnPlan {
public:
    /// @throws std::bad_alloc
    SpawnPlan();
    ~SpawnPlan();

    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    /// Makes our `source` the child's descriptor `target`. Sources must lie above all targets.
    void mapDescriptor(int source, int target);

    /// Starts the child in `directory`.
    void setWorkingDirectory(const std::string& directory);

    /// Starts the program. Call it once.
    /// @param arguments all of them, argument 0 included
    /// @param environment "NAME=VALUE" texts, or null for a copy of ours
    /// @param searchPath whether a name without a slash is looked for along PATH
    /// @param child receives the process number on success
    result_t spawn(const std::string& executable, const std::vector<std::string>& arguments,
                   const std::vector<std::string>* environment, bool searchPath, pid_t& child);

private:
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    int firstClosed = 3;  // everything from here upward is closed in the child
};

}  // namespace basekit2::process
