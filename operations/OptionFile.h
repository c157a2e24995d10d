#pragma once

#include <string>
#include <vector>

namespace cagnt1::operations {

/// Creates a collection's result directory, which must not exist yet, for this process's user alone
/// (mode 0700), and writes `lines` into the option file config/trcap_remote.options in it. The line
/// after each "-r" is replaced by `resultDirectory`.
/// @return path of the option file
/// @throws std::runtime_error "Failed to create result directory: ", "Failed to open options
///         file: " or "Failed to write options file: ", each followed by the path
/// @throws boost::filesystem::filesystem_error when a directory cannot be created
std::string writeOptionFile(const std::string& resultDirectory,
                            const std::vector<std::string>& lines);

}  // namespace cagnt1::operations
