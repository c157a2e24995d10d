#pragma once

#include <functional>
#include <string>

#include <sys/types.h>

namespace kolvan::test {

/// Looks again and again until `condition` holds: Linux tells no other thread that one has ended or
/// fallen asleep.
/// @throws std::runtime_error with the text `what` when the deadline passes
void lookUntil(const std::function<bool()>& condition, const std::string& what);

/// Whether a thread of this process, by its kernel number, is there, or sleeps in the kernel.
bool threadExists(pid_t kernelThread);
bool isSleeping(pid_t kernelThread);

/// Blocks until a thread of this process has ended, or sleeps in the kernel.
/// @throws std::runtime_error when the deadline passes
void waitUntilThreadEnds(pid_t kernelThread);
void waitUntilThreadSleeps(pid_t kernelThread);

}  // namespace kolvan::test
