#pragma once

#include <string>
#include <vector>

namespace cagnt1::operations {

/// A file that a collection wrote and that the server wants.
struct TraceFile {
    std::string filePath;           ///< full path
    std::string relativeDirectory;  ///< its directory below the result directory; may be empty
};

/// Lists the trace files below a collection's result directory: everything but directories whose
/// full path contains "data". Links to files count, links to directories are
/// neither followed nor listed.
/// @throws boost::filesystem::filesystem_error when a directory or a status cannot be read
std::vector<TraceFile> findTraceFiles(const std::string& resultDirectory);

}  // namespace cagnt1::operations
