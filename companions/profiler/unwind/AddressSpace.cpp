#include "companions/profiler/unwind/AddressSpace.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace kolvan::profiler {

namespace {

constexpr std::size_t kMostMappings = 65'536;  // the kernel allows a process 65,530 by default

}  // namespace

std::optional<std::uint64_t> AddressSpace::Mapping::addressInObject(
    std::uint64_t address) const noexcept {
    return object ? object->addressOf(address - begin + fileOffset) : std::nullopt;
}

void AddressSpace::map(Mapping mapping) {
    if (mapping.begin >= mapping.end) {
        return;
    }
    auto place = std::partition_point(
        mappings.begin(), mappings.end(),
        [&mapping](const Mapping& other) { return other.end <= mapping.begin; });
    if (place != mappings.end() && place->begin < mapping.begin) {
        Mapping front = *place;
        front.end = mapping.begin;
        place->fileOffset += mapping.begin - place->begin;
        place->begin = mapping.begin;
        place = mappings.insert(place, std::move(front)) + 1;
    }
    const auto last = std::find_if(place, mappings.end(), [&mapping](const Mapping& other) {
        return other.end > mapping.end;
    });
    if (last != mappings.end() && last->begin < mapping.end) {
        last->fileOffset += mapping.end - last->begin;
        last->begin = mapping.end;
    }
    place = mappings.erase(place, last);
    mappings.insert(place, std::move(mapping));
    if (mappings.size() > kMostMappings) {
        mappings.erase(mappings.begin());
    }
}

const AddressSpace::Mapping* AddressSpace::find(std::uint64_t address) const noexcept {
    const auto place =
        std::partition_point(mappings.begin(), mappings.end(),
                             [address](const Mapping& mapping) { return mapping.end <= address; });
    return place != mappings.end() && place->begin <= address ? &*place : nullptr;
}

}  // namespace kolvan::profiler
