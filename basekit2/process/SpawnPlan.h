#pragma once

#include "basekit2/process/BecomeProgram.h"
#include "basekit2/result.h"

#include <string>
#include <vector>

#include <sys/types.h>

namespace basekit2::process {

/// What one child is started with: its descriptors, directory, signals and limits.
///
/// The child's descriptor 0 is the null device; descriptors that are not laid out here are closed
/// in the child, whatever other threads have open. Its signals have their default actions and none
/// is blocked. Its limit of open descriptors is the one from before `raise_descriptor_limit()`.
///
/// Nothing of the parent changes for the child's sake, so that any number of children may be
/// started at once.
class SpawnPlan {
public:
    /// Sources of descriptors are this number or higher, targets lower by two or more.
    static constexpr int kLowestSource = 9;

    /// Makes our `source` the child's descriptor `target`.
    /// @throws std::bad_alloc
    void mapDescriptor(int source, int target);

    /// Starts the child in `directory`.
    /// @throws std::bad_alloc
    void setWorkingDirectory(const std::string& directory);

    /// Starts the program, which takes two descriptors for the time of the call.
    /// @param arguments all of them, argument 0 included
    /// @param environment "NAME=VALUE" texts, or null for a copy of ours
    /// @param searchPath whether a name without a slash is looked for along PATH
    /// @param child receives the process number on success
    /// @return no error, or the number of the error that kept the program from running
    /// @throws std::bad_alloc; nothing runs then
    result_t spawn(const std::string& executable, const std::vector<std::string>& arguments,
                   const std::vector<std::string>* environment, bool searchPath,
                   pid_t& child) const;

private:
    std::vector<DescriptorMapping> descriptors;
    int firstClosed = 3;  // everything from here upward is closed in the child
    std::string workingDirectory;
};

}  // namespace basekit2::process
