#pragma once

#include <string>

namespace kolvan {

/// The name as it stands in the source, where `systemName` is mangled as C++ compilers do;
/// otherwise the name as it is. So is a name whose text would be absurdly long: a short mangled
/// name can stand for gigabytes.
std::string demangle(const std::string& systemName);

}  // namespace kolvan
