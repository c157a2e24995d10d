#pragma once

#include "companions/profiler/output/Profile.h"

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

namespace kolvan::profiler {

/// Gives every stack a number, the same one to the same stack, in the tables of a profile.
class StackTable {
public:
    explicit StackTable(std::vector<Profile::Stack>& stacksOfProfile) : stacks(stacksOfProfile) {}

    std::uint32_t numberOf(const std::vector<std::uint32_t>& locations, bool complete);

private:
    std::vector<Profile::Stack>& stacks;
    std::unordered_multimap<std::size_t, std::uint32_t> byHash;
};

}  // namespace kolvan::profiler
