#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kolvan::test {

/// Prefix of the files under which uploads arrive; no safe name begins with it.
inline constexpr std::string_view kIncomingPrefix = ".incoming-";

/// Makes one name of a file or directory out of whatever was sent.
///
/// A plain name stays as it is. Anything else (empty, "." and "..", separators, control characters,
/// too long) has its harmful bytes replaced and a mark of the original appended, so that different
/// originals stay different.
std::string safeName(std::string_view name);

/// Splits a remote directory at its separators into safe names, outermost first.
/// Empty pieces and "." disappear, as they do in any path; ".." becomes a name like any other.
std::vector<std::string> safeDirectories(std::string_view remoteDirectory);

}  // namespace kolvan::test
