#pragma once

#include <string>
#include <system_error>

namespace kolvan::profiler {

/// What the system says of an error, by its number; as strerror(3), from any thread.
inline std::string errorText(int error) {
    return std::generic_category().message(error);
}

}  // namespace kolvan::profiler
