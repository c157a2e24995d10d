#pragma once

#include "companions/server/profiles/CodeNames.h"
#include "companions/server/profiles/GunzipStream.h"
#include "companions/server/profiles/Profile.h"
#include "companions/server/profiles/UnreadableProfile.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>

namespace kolvan::server::profiles {

/// What we take of one profile. Whoever commands an agent chooses its bytes, so that memory and
/// time are bounded by these numbers and not by what a file says of itself: about 2 GiB at worst,
/// and some seconds.
struct ProfileLimits {
    std::uint64_t bytes = std::uint64_t{512} << 20;  ///< unpacked
    std::size_t partBytes = std::size_t{16} << 20;   ///< of one text, sample, ...
    std::size_t samples = std::size_t{8} << 20;      ///< 8 processors at 10,000 Hz for 100 s
    std::size_t sampleTypes = 8;                     ///< values of each sample
    std::size_t entries = std::size_t{4} << 20;  ///< texts; functions; locations; their lines; ...
    std::size_t threads = std::size_t{256} << 10;
    std::size_t calls = std::size_t{32} << 20;  ///< of all different stacks together
};

/// Reads the gzip of a pprof message. What it does not know in it, it passes over.
/// @param names for code that the profile has none for
/// @throws UnreadableProfile with a sentence that says what is wrong; and what source and names
/// throw
Profile readProfile(ByteSource source, const ProfileLimits& limits = {},
                    const CodeNames& names = NoCodeNames());

/// The same for a file. It blocks for as long as the disk takes.
/// @throws std::system_error also, when the file cannot be opened or read
Profile readProfileFile(const std::filesystem::path& path, const ProfileLimits& limits = {});

/// The bytes of an open file, from where it stands.
/// @param descriptor stays open as long as the source is used
/// @param path how the error names it
/// @return a source that throws std::system_error
ByteSource sourceOf(int descriptor, const std::filesystem::path& path);

}  // namespace kolvan::server::profiles
