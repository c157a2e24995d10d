#pragma once

#include <string_view>

#include <protozero/varint.hpp>

namespace kolvan::server::profiles {

/// Calls `take` with each of the numbers (varints) that follow one another in `bytes`.
/// @throws protozero::exception when they are none
template <typename Take>
void forEachNumber(std::string_view bytes, Take take) {
    const char* position = bytes.data();
    const char* const end = bytes.data() + bytes.size();
    while (position != end) {
        take(protozero::decode_varint(&position, end));
    }
}

}  // namespace kolvan::server::profiles
