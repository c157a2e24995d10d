#pragma once

#include "companions/server/profiles/ProfileEntries.h"
#include "companions/server/profiles/ProfileLimits.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace kolvan::server::profiles {

/// Reads the entries of a pprof message one by one, in any order.
class EntryReader {
public:
    /// @param entries takes what is read, and outlives the reader
    EntryReader(const ProfileLimits& limits, ProfileEntries& entries);

    // Each takes the bytes of one field of the message.
    // They throw UnreadableProfile for what is beyond the limits, protozero::exception for no
    // message.
    void addSampleType(std::string_view bytes);
    void addSample(std::string_view bytes);
    void addMapping(std::string_view bytes);
    void addLocation(std::string_view bytes);
    void addFunction(std::string_view bytes);
    void addText(std::string_view bytes);
    void addComment(std::uint64_t text);

private:
    const ProfileLimits limits;
    ProfileEntries& entries;
    std::string idBytes;  // of the sample that is being read
    std::string labelBytes;
};

}  // namespace kolvan::server::profiles
