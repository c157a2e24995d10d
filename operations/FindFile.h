#pragma once

#include <string>

namespace cagnt1::operations {

/// Searches `directory` and the directories below it for an entry named exactly `fileName`, be it a
/// file, a directory or anything else. Links to directories are not followed.
/// @param maxDepth how many directories deep to look; 0 looks at the direct entries only
/// @return full path of the first match in the operating system's order; empty when there is none
/// @throws boost::filesystem::filesystem_error when a directory cannot be read
std::string findFile(const std::string& directory, const std::string& fileName, int maxDepth);

}  // namespace cagnt1::operations
