#pragma once

#include "basekit2/UniqueFd.h"

#include <functional>

namespace kolvan::fuzz {

/// Makes a small disk in memory this process's root: whatever names an archive holds, "..",
/// absolute or through links, nothing but the disk can be reached by them.
///
/// The working directory stays where it was, so that a finding can still be written down.
class Jail {
public:
    /// Ends the process with status 4 where it may not do this. To be made before any thread.
    Jail();

    /// Runs `body` with the empty disk as root, and empties it again.
    void run(const std::function<void()>& body);

private:
    basekit2::UniqueFd outerRoot;
    basekit2::UniqueFd disk;
};

}  // namespace kolvan::fuzz
