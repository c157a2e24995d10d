#pragma once

#include <functional>

namespace kolvan::test {

/// Runs `body` on a thread whose mounts nobody else sees; they are gone when it returns.
/// @return false, without having run `body`, where this process may not have such mounts
bool runWithPrivateMounts(const std::function<void()>& body);

}  // namespace kolvan::test
