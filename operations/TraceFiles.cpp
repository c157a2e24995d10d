#include "operations/TraceFiles.h"

#include <boost/filesystem.hpp>

namespace cagnt1::operations {

namespace fs = boost::filesystem;

std::vector<TraceFile> findTraceFiles(const std::string& resultDirectory) {
    std::vector<TraceFile> traceFiles;
    const fs::recursive_directory_iterator end;
    for (fs::recursive_directory_iterator entry(resultDirectory); entry != end; ++entry) {
        const fs::path& path = entry->path();
        // Deliberate: "data" counts anywhere in the path, also above the result directory.
        if (!fs::is_directory(path) && path.string().find("data") != std::string::npos) {
            const fs::path directory = path.parent_path().lexically_relative(resultDirectory);
            traceFiles.push_back({path.string(), directory == "." ? "" : directory.string()});
        }
    }
    return traceFiles;
}

}  // namespace cagnt1::operations
