#pragma once

#include <string>

namespace cagnt1::operations {

/// Extracts an archive of any format and compression that libarchive reads, with the entries'
/// times, permissions, access lists and flags. Every entry lands under `destinationDirectory`
/// joined with its own name; a name's ".." components are kept.
///
/// Problems are described on standard error. A problem that libarchive calls a warning concerns one
/// entry only, and the extraction goes on with the next one.
/// @return whether the whole archive was read
/// @throws std::runtime_error with libarchive's text when it cannot prepare to write
/// @throws std::bad_alloc
bool extractArchive(const std::string& archivePath, const std::string& destinationDirectory);

}  // namespace cagnt1::operations
