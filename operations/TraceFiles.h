#pragma once

#include <string>
#include <vector>

namespace cagnt1::operations {

/// A file that a collection wrote and that is uploaded to the server.
struct TraceFile {
    std::string filePath;           ///< full path
    std::string relativeDirectory;  ///< its directory below the result directory; may be empty
};

/// Lists the trace files below a collection's result directory. A trace file is an entry whose full
/// path contains "data" and that is not a directory. A link counts as what it leads to; links to
/// directories are not followed.
/// @throws boost::filesystem::filesystem_error when a directory or the kind of an entry cannot be
///         read
std::vector<TraceFile> findTraceFiles(const std::string& resultDirectory);

}  // namespace cagnt1::operations
