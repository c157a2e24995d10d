#pragma once

#include <string>

namespace cagnt1::operations {

/// Searches `directory` and the directories below it, links not followed, for an entry of any
/// kind with exactly the name `fileName`.
/// @param maxDepth how many directories deep to look; 0 looks at the direct entries only
/// @return full path of the first match in the operating system's order; empty when there is none
/// @throws boost::filesystem::filesystem_error when a directory cannot be read
std::string findFile(const std::string& directory, const std::string& fileName, int maxDepth);

}  // namespace cagnt1::operations
