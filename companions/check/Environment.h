#pragma once

#include <map>
#include <string>

namespace kolvan::check {

/// Variables of an environment by name.
using Environment = std::map<std::string, std::string>;

/// The variables of this process.
Environment ownEnvironment();

/// The variables in the form of /proc/PID/environ, each ended by a NUL. Of two with one name the
/// first counts.
Environment parseEnvironment(const std::string& text);

}  // namespace kolvan::check
