#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>

namespace kolvan::profiler {

class ElfObject;

/// Finds the separate debug file of `object`. In this order: the directory of build-ids below
/// /usr/lib/debug; the name in .gnu_debuglink, beside the file, in ".debug" beside it, and in the
/// file's directory below /usr/lib/debug. Each is looked for below `root` first, then here. A file
/// that belongs to another build, by its build-id or its checksum, is passed over.
/// @param root where the root directory of the process that has mapped the object is seen, or empty
/// @return nothing when there is none
std::shared_ptr<const ElfObject> findDebugFile(const ElfObject& object, const std::string& root);

/// Finds the file in which several debug files, `debugFile` among them, keep what they have in
/// common.
/// @param name as it stands in .gnu_debugaltlink: relative to the debug file's directory, or
/// absolute
/// @param buildId what the file must have
/// @return nothing when there is none
std::shared_ptr<const ElfObject> findSupplement(const ElfObject& debugFile, const std::string& name,
                                                std::span<const std::byte> buildId);

}  // namespace kolvan::profiler
