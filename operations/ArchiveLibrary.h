#pragma once

#include <archive.h>
#include <archive_entry.h>

namespace cagnt1::operations {

/// The functions of libarchive that an extraction calls, each under its own name.
///
/// Threads: any number of them may call the functions at the same time.
class ArchiveLibrary {
    // Declared before the functions, which are looked up in it. Deliberate: never closed. The
    // functions may be called until the process ends.
    void* const handle;

public:
    /// Loads the library and whatever it needs itself.
    /// @param name as the loader takes it: a path, or a name to be searched for
    /// @throws std::runtime_error with the loader's text where the library cannot be loaded or one
    ///         of the functions is missing in it
    explicit ArchiveLibrary(const char* name);

// The name is written once, so that a function is never called by the type of another one.
#define KOLVAN_FUNCTION(name) \
    decltype(::name)* const name = reinterpret_cast<decltype(::name)*>(find(#name))
    KOLVAN_FUNCTION(archive_entry_hardlink);
    KOLVAN_FUNCTION(archive_entry_pathname);
    KOLVAN_FUNCTION(archive_entry_pathname_utf8);
    KOLVAN_FUNCTION(archive_entry_set_hardlink);
    KOLVAN_FUNCTION(archive_entry_set_pathname);
    KOLVAN_FUNCTION(archive_entry_size);
    KOLVAN_FUNCTION(archive_error_string);
    KOLVAN_FUNCTION(archive_read_data_block);
    KOLVAN_FUNCTION(archive_read_free);
    KOLVAN_FUNCTION(archive_read_new);
    KOLVAN_FUNCTION(archive_read_next_header);
    KOLVAN_FUNCTION(archive_read_open_filename);
    KOLVAN_FUNCTION(archive_read_support_filter_all);
    KOLVAN_FUNCTION(archive_read_support_format_all);
    KOLVAN_FUNCTION(archive_write_data_block);
    KOLVAN_FUNCTION(archive_write_disk_new);
    KOLVAN_FUNCTION(archive_write_disk_set_options);
    KOLVAN_FUNCTION(archive_write_disk_set_standard_lookup);
    KOLVAN_FUNCTION(archive_write_finish_entry);
    KOLVAN_FUNCTION(archive_write_free);
    KOLVAN_FUNCTION(archive_write_header);
#undef KOLVAN_FUNCTION

private:
    void* find(const char* name) const;
};

/// Returns libarchive, which the first call loads, for good. A call after one that has thrown tries
/// again.
/// @throws std::runtime_error as `ArchiveLibrary` does
const ArchiveLibrary& libarchive();

}  // namespace cagnt1::operations
