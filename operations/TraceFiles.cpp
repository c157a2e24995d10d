#include "operations/TraceFiles.h"

#include <boost/filesystem.hpp>

namespace cagnt1::operations {

namespace fs = boost::filesystem;

std::vector<TraceFile> findTraceFiles(const std::string& resultDirectory) {
    std::vector<TraceFile> traceFiles;
    const fs::recursive_directory_iterator end;
    for (fs::recursive_directory_iterator entry(resultDirectory); entry != end; ++entry) {
        const fs::path& path = entry->path();
        // Deliberate: "data" may stand anywhere in the path, even above the result directory. The
        // collector puts traces into directories like data.0, under names of all kinds.
        if (!fs::is_directory(path) && path.string().find("data") != std::string::npos) {
            const fs::path directory = path.parent_path().lexically_relative(resultDirectory);
            traceFiles.push_back({path.string(), directory == "." ? "" : directory.string()});
        }
    }
    return traceFiles;
}

}  // namespace cagnt1::operations
