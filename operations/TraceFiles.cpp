#include "operations/TraceFiles.h"

#include <boost/filesystem.hpp>

namespace cagnt1::operations {

namespace fs = boost::filesystem;

std::vector<TraceFile> findTraceFiles(const std::string& resultDirectory) {
    std::vector<TraceFile> traceFiles;
    const fs::recursive_directory_iterator end;
    for (fs::recursive_directory_iterator entry(resultDirectory); entry != end; ++entry) {
        const fs::path& path = entry->path();
        const fs::file_type type = fs::status(path).type();
        // A named pipe is no trace: whoever opened it to read would wait for a writer for ever.
        const bool isFile = type != fs::directory_file && type != fs::fifo_file;
        // Deliberate: "data" counts anywhere in the path, also above the result directory.
        if (isFile && path.string().find("data") != std::string::npos) {
            const fs::path directory = path.parent_path().lexically_relative(resultDirectory);
            traceFiles.push_back({path.string(), directory == "." ? "" : directory.string()});
        }
    }
    return traceFiles;
}

}  // namespace cagnt1::operations
