#pragma once

#include "tests/support/standin/ProfilingServer.h"

#include <string>
#include <vector>

namespace kolvan::test {

/// Checks everything that one agent has sent against what an agent may send.
///
/// - The first message is "connect", and the only one of its type. Every message carries the same
///   random identity and the token, and the parameters of its type, no others.
/// - Sizes of output are those of the decoded text.
/// - Each id ends with exactly one "collector:finish", which carries either a code or an error, and
///   nothing follows it. Ids must therefore not be used twice.
/// - Nothing is sent after "disconnect", except for one poll that was on its way already. There is
///   at most one "disconnect".
/// @return a sentence for each thing that is wrong
std::vector<std::string> grammarErrors(const Transcript& transcript,
                                       const std::string& accessToken);

/// Tells whether a text looks like the form, in which "x" stands for a hexadecimal digit in lower
/// case, "v" for one that a random identity may have as its variant, and the rest for itself.
bool hasForm(const std::string& text, const std::string& form);

}  // namespace kolvan::test
