#include "operations/FindFile.h"

#include <boost/filesystem.hpp>

namespace cagnt1::operations {

namespace fs = boost::filesystem;

std::string findFile(const std::string& directory, const std::string& fileName, int maxDepth) {
    const fs::path wanted(fileName);
    const fs::recursive_directory_iterator end;
    for (fs::recursive_directory_iterator entry(directory); entry != end; ++entry) {
        if (entry.depth() >= maxDepth) {
            entry.disable_recursion_pending();
        }
        if (entry->path().filename() == wanted) {
            return entry->path().string();
        }
    }
    return {};
}

}  // namespace cagnt1::operations
