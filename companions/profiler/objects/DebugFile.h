#pragma once

#include <memory>
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

}  // namespace kolvan::profiler
