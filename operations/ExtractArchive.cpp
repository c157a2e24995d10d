#include "operations/ExtractArchive.h"

#include "operations/ArchiveHandles.h"
#include "operations/ArchiveLibrary.h"

#include <boost/filesystem/path.hpp>

#include <cstddef>
#include <iostream>
#include <new>
#include <stdexcept>

namespace cagnt1::operations {

namespace {

constexpr std::size_t kReadBlockSize = 10240;  // the size in which tar writes

// Times, permissions, access lists and file flags. Deliberate: owners are not restored, because the
// collector belongs to whoever runs the agent; paths are not checked, because a package may contain
// links.
constexpr int kExtractionFlags =
    ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_ACL | ARCHIVE_EXTRACT_FFLAGS;

// The library returns null when this handle has had no error. A stream that is given a null pointer
// fails, and prints nothing from then on.
std::string errorText(archive* handle) {
    const char* text = libarchive().archive_error_string(handle);
    return text != nullptr ? text : "";
}

void requireSuccess(int status, archive* handle) {
    if (status != ARCHIVE_OK) {
        throw std::runtime_error(errorText(handle));
    }
}

void printLine(const std::string& text) {
    std::cerr << text + "\n";
}

ArchiveReader makeReader() {
    ArchiveReader reader(libarchive().archive_read_new());
    if (reader == nullptr) {
        throw std::bad_alloc();
    }
    // These two always report success. What they cannot set up is not recognised in an archive.
    (void)libarchive().archive_read_support_format_all(reader.get());
    (void)libarchive().archive_read_support_filter_all(reader.get());
    return reader;
}

ArchiveDiskWriter makeDiskWriter() {
    ArchiveDiskWriter writer(libarchive().archive_write_disk_new());
    if (writer == nullptr) {
        throw std::bad_alloc();
    }
    requireSuccess(libarchive().archive_write_disk_set_options(writer.get(), kExtractionFlags),
                   writer.get());
    requireSuccess(libarchive().archive_write_disk_set_standard_lookup(writer.get()), writer.get());
    return writer;
}

void moveBelow(const std::string& directory, archive_entry* entry) {
    const char* name = libarchive().archive_entry_pathname(entry);
    if (name == nullptr) {
        // In the "C" locale the library gives a name that is not ASCII only as UTF-8.
        name = libarchive().archive_entry_pathname_utf8(entry);
    }
    const boost::filesystem::path path =
        boost::filesystem::path(directory) / (name != nullptr ? name : "");
    libarchive().archive_entry_set_pathname(entry, path.c_str());
    // The target of a hard link is an entry of the same archive, so it has been moved as well.
    if (const char* target = libarchive().archive_entry_hardlink(entry)) {
        libarchive().archive_entry_set_hardlink(
            entry, (boost::filesystem::path(directory) / target).c_str());
    }
}

// Returns ARCHIVE_OK or the negative status of what failed.
int copyData(archive* reader, archive* writer) {
    for (;;) {
        const void* block = nullptr;
        std::size_t size = 0;
        la_int64_t offset = 0;
        const int read = libarchive().archive_read_data_block(reader, &block, &size, &offset);
        if (read == ARCHIVE_EOF) {
            return ARCHIVE_OK;
        }
        if (read < ARCHIVE_OK) {
            return read;
        }
        const la_ssize_t written =
            libarchive().archive_write_data_block(writer, block, size, offset);
        if (written < ARCHIVE_OK) {
            printLine(errorText(writer));
            return static_cast<int>(written);
        }
    }
}

// Writes one entry whose header has been read. Returns whether the extraction can go on.
bool extractEntry(archive* reader, archive* writer, archive_entry* entry) {
    if (libarchive().archive_write_header(writer, entry) < ARCHIVE_OK) {
        printLine(errorText(writer));
    } else if (libarchive().archive_entry_size(entry) > 0) {
        const int copied = copyData(reader, writer);
        if (copied < ARCHIVE_OK) {
            printLine(errorText(writer));
        }
        if (copied < ARCHIVE_WARN) {
            return false;
        }
    }
    const int finished = libarchive().archive_write_finish_entry(writer);
    if (finished < ARCHIVE_OK) {
        printLine(errorText(writer));
    }
    return finished >= ARCHIVE_WARN;
}

}  // namespace

bool extractArchive(const std::string& archivePath, const std::string& destinationDirectory) {
    const ArchiveReader reader = makeReader();
    const ArchiveDiskWriter writer = makeDiskWriter();
    if (libarchive().archive_read_open_filename(reader.get(), archivePath.c_str(),
                                                kReadBlockSize) != ARCHIVE_OK) {
        std::cerr << errorText(reader.get());
        return false;
    }
    for (;;) {
        archive_entry* entry = nullptr;
        const int status = libarchive().archive_read_next_header(reader.get(), &entry);
        if (status == ARCHIVE_EOF) {
            return true;
        }
        if (status < ARCHIVE_OK) {
            // Deliberate: the writer's text, although it was the reader that failed. Once the
            // archive is open, every line that operators see comes from the writer.
            printLine(errorText(writer.get()));
        }
        if (status < ARCHIVE_WARN) {
            return false;
        }
        moveBelow(destinationDirectory, entry);
        if (!extractEntry(reader.get(), writer.get(), entry)) {
            return false;
        }
    }
}

}  // namespace cagnt1::operations
