#pragma once

#include "companions/profiler/base/FileDescriptor.h"
#include "companions/profiler/objects/ElfObject.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include <sys/types.h>

namespace kolvan::profiler {

/// A file as a process has mapped it.
struct MappedFile {
    pid_t process = 0;
    std::uint64_t begin = 0;  ///< of the mapping, in the process
    std::uint64_t end = 0;
    std::uint64_t device = 0;  ///< as stat(2) gives it
    std::uint64_t inode = 0;
    std::string path;  ///< as the process sees it; "[vdso]", "//anon" and the like for no file
};

/// Opens every mapped file once, however many processes have mapped it, and keeps it. Of thousands
/// of files, those that nobody else holds are let go.
///
/// A process may be in a container, with another root directory than ours; it may have ended; and
/// its files may have been deleted or replaced. A file is taken where it can be reached and has the
/// inode that is mapped. One thread at a time.
class ObjectStore {
public:
    ObjectStore();

    /// @return nothing when the file is no ELF file, or cannot be reached any more
    std::shared_ptr<const ElfObject> find(const MappedFile& file);

private:
    using Identity = std::pair<std::uint64_t, std::uint64_t>;  // device and inode

    std::shared_ptr<const ElfObject> openMapped(const MappedFile& file);

    std::shared_ptr<const ElfObject> vdso;
    std::map<Identity, std::shared_ptr<const ElfObject>> objects;
};

}  // namespace kolvan::profiler
