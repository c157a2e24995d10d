#pragma once

#include <string>

namespace cagnt1::operations {

/// Extracts an archive of any format and compression that libarchive reads, with the entries'
/// times, permissions, access lists and flags. Every entry lands under `destinationDirectory`
/// joined with its own name; a name's ".." components are kept.
///
/// Problems are described on standard error. One with a single entry that libarchive calls a
/// warning does not end the extraction.
/// @return whether the whole archive was read
bool extractArchive(const std::string& archivePath, const std::string& destinationDirectory);

}  // namespace cagnt1::operations
