#pragma once

#include "companions/server/profiles/CodeNames.h"
#include "companions/server/profiles/GunzipStream.h"
#include "companions/server/profiles/Profile.h"
#include "companions/server/profiles/ProfileLimits.h"
#include "companions/server/profiles/UnreadableProfile.h"

#include <filesystem>

namespace kolvan::server::profiles {

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
