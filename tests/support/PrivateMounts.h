#pragma once

#include <functional>

namespace kolvan::test {

/// Leaves the calling thread, for good, with mounts that nobody else sees.
/// @return false where it may not have such mounts
bool makeMountsPrivate();

/// Runs `body` on a thread whose mounts nobody else sees; they are gone when it returns.
/// @return false, without having run `body`, where this process may not have such mounts
bool runWithPrivateMounts(const std::function<void()>& body);

}  // namespace kolvan::test
