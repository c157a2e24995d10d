#pragma once

#include <string>
#include <string_view>

namespace kolvan {

/// A C++ function's name as a person says it: without parameters, and with template arguments as
/// "<>". Names that do not read like that stay as they are.
std::string shortName(std::string_view name);

}  // namespace kolvan
