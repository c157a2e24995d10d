#pragma once

#include "operations/ArchiveLibrary.h"

#include <memory>

namespace cagnt1::operations {

// The results of freeing are ignored. A reader has nothing left that could fail. A writer sets the
// times and permissions of directories when it is freed; where that fails, their contents are there
// all the same.

struct ArchiveReadFree {
    void operator()(archive* reader) const noexcept {
        (void)libarchive().archive_read_free(reader);
    }
};
using ArchiveReader = std::unique_ptr<archive, ArchiveReadFree>;

struct ArchiveWriteFree {
    void operator()(archive* writer) const noexcept {
        (void)libarchive().archive_write_free(writer);
    }
};
using ArchiveDiskWriter = std::unique_ptr<archive, ArchiveWriteFree>;

}  // namespace cagnt1::operations
