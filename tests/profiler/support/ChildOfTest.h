#pragma once

#include <cerrno>
#include <functional>
#include <string>

namespace kolvan::test {

/// Does `work` in a child of this process, which may give up rights and limits for ever.
/// @return what `work` returns, or "exception: " and the text of what it throws
std::string resultOfChild(const std::function<std::string()>& work);

/// Makes this process one of an ordinary user, where it is root's.
void becomeOrdinaryUser();

/// The same for the thread that calls, with one capability of root's; what it starts has none.
/// @param capability one of CAP_*
void becomeUserWith(int capability);

/// Whether an ordinary user can come to a file: every directory above it lets others through.
bool isReachableForOthers(const std::string& path);

/// Lets a system call of this process, and of what it starts, fail with `error` from now on.
/// @param number one of SYS_*
void refuseSystemCall(int number, int error = EACCES);

}  // namespace kolvan::test
