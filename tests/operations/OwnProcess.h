#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace cagnt1::operations {

/// Runs `body` in a forked copy of this process, which may spoil its limits, identity and mounts
/// as it likes, and which is ended when it takes unreasonably long.
///
/// No other thread of this process may be running.
/// @return what `body` returned
/// @throws std::runtime_error when the copy did not end by itself
std::string inOwnProcess(const std::function<std::string()>& body);

/// Makes permissions count, also for a test that is run by the superuser. Own process only.
void dropPrivileges();

/// Lets this process open `more` further descriptors and no more. Own process only.
void limitDescriptors(std::size_t more);

/// Lets no file of this process grow beyond `bytes`; writing more fails. Own process only.
void limitFileSize(std::size_t bytes);

/// Mounts a disk of `bytes`, which is seen by this process alone, at `directory`. Own process only.
/// @return false where the test may not do that
bool mountSmallDisk(const std::string& directory, std::size_t bytes);

}  // namespace cagnt1::operations
