#pragma once

#include "companions/server/profiles/Profile.h"

#include <cstdint>
#include <vector>

namespace kolvan::server::profiles {

/// Numbers the functions that a view uses, in the order of the profile, without gaps: what is not
/// used is not written.
class FunctionNumbers {
public:
    explicit FunctionNumbers(const Profile& profile) : numbers(profile.functions.size()) {}

    void use(std::uint32_t function) { numbers[function] = 1; }

    /// Has to be called between the last `use()` and the first `[]`.
    /// @return the functions that are used
    std::vector<std::uint32_t> assign() {
        std::vector<std::uint32_t> used;
        for (std::uint32_t function = 0; function < numbers.size(); ++function) {
            if (numbers[function] != 0) {
                numbers[function] = static_cast<std::uint32_t>(used.size());
                used.push_back(function);
            }
        }
        return used;
    }

    /// Number of a function that is used.
    std::uint32_t operator[](std::uint32_t function) const { return numbers[function]; }

private:
    std::vector<std::uint32_t> numbers;
};

}  // namespace kolvan::server::profiles
