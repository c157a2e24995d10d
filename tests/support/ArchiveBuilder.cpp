#include "tests/support/ArchiveBuilder.h"

#include <archive.h>
#include <archive_entry.h>

#include <fstream>
#include <memory>
#include <ostream>
#include <random>
#include <stdexcept>

#include <sys/stat.h>

namespace kolvan::test {

namespace {

struct WriterRelease {
    void operator()(archive* writer) const noexcept { archive_write_free(writer); }
};
using Writer = std::unique_ptr<archive, WriterRelease>;

struct EntryRelease {
    void operator()(archive_entry* entry) const noexcept { archive_entry_free(entry); }
};
using EntryHandle = std::unique_ptr<archive_entry, EntryRelease>;

la_ssize_t appendBytes(archive* /*writer*/, void* output, const void* data, std::size_t length) {
    static_cast<std::string*>(output)->append(static_cast<const char*>(data), length);
    return static_cast<la_ssize_t>(length);
}

void require(int status, archive* writer) {
    // A warning tells of a name that only some locales can read; it is written all the same.
    if (status < ARCHIVE_WARN) {
        throw std::runtime_error(archive_error_string(writer));
    }
}

void selectFormat(archive* writer, ArchiveBuilder::Format format) {
    switch (format) {
        case ArchiveBuilder::Format::Tar:
            require(archive_write_set_format_pax(writer), writer);
            break;
        case ArchiveBuilder::Format::TarGz:
            require(archive_write_set_format_pax(writer), writer);
            require(archive_write_add_filter_gzip(writer), writer);
            // The same content is the same archive, whenever it is made.
            require(archive_write_set_filter_option(writer, "gzip", "timestamp", nullptr), writer);
            break;
        case ArchiveBuilder::Format::TarZst:
            require(archive_write_set_format_pax(writer), writer);
            require(archive_write_add_filter_zstd(writer), writer);
            break;
        case ArchiveBuilder::Format::Zip:
            require(archive_write_set_format_zip(writer), writer);
            break;
        case ArchiveBuilder::Format::SevenZip:
            require(archive_write_set_format_7zip(writer), writer);
            break;
    }
}

}  // namespace

ArchiveBuilder::ArchiveBuilder(Format format) : format(format) {}

ArchiveBuilder& ArchiveBuilder::add(const std::string& name, mode_t mode) {
    const timespec epoch{1600000000, 0};
    entries.push_back({name, mode, {}, {}, {}, 0, 0, 0, epoch, epoch, {}, {}, {}});
    return *this;
}

ArchiveBuilder& ArchiveBuilder::file(const std::string& name, const std::string& content,
                                     mode_t permissions) {
    add(name, S_IFREG | permissions);
    entries.back().content = content;
    return *this;
}

ArchiveBuilder& ArchiveBuilder::directory(const std::string& name, mode_t permissions) {
    return add(name, S_IFDIR | permissions);
}

ArchiveBuilder& ArchiveBuilder::symbolicLink(const std::string& name, const std::string& target) {
    add(name, S_IFLNK | 0777);
    entries.back().symbolicTarget = target;
    return *this;
}

ArchiveBuilder& ArchiveBuilder::hardLink(const std::string& name, const std::string& target) {
    add(name, S_IFREG | 0644);
    entries.back().hardTarget = target;
    return *this;
}

ArchiveBuilder& ArchiveBuilder::fifo(const std::string& name) {
    return add(name, S_IFIFO | 0644);
}

ArchiveBuilder& ArchiveBuilder::characterDevice(const std::string& name, dev_t number) {
    add(name, S_IFCHR | 0644);
    entries.back().device = number;
    return *this;
}

ArchiveBuilder& ArchiveBuilder::owner(std::int64_t user, std::int64_t group) {
    entries.back().user = user;
    entries.back().group = group;
    return *this;
}

ArchiveBuilder& ArchiveBuilder::times(const timespec& accessed, const timespec& modified) {
    entries.back().accessed = accessed;
    entries.back().modified = modified;
    return *this;
}

ArchiveBuilder& ArchiveBuilder::grant(const std::string& userName, int userId, int permissions) {
    entries.back().grants.push_back({userName, userId, permissions});
    return *this;
}

ArchiveBuilder& ArchiveBuilder::accessMask(int permissions) {
    entries.back().accessMask = permissions;
    return *this;
}

ArchiveBuilder& ArchiveBuilder::fileFlags(const std::string& flags) {
    entries.back().flags = flags;
    return *this;
}

ArchiveBuilder& ArchiveBuilder::encrypt(const std::string& secret) {
    passphrase = secret;
    return *this;
}

void ArchiveBuilder::append(archive* writer, const Entry& entry) {
    EntryHandle handle(archive_entry_new());
    archive_entry_set_pathname(handle.get(), entry.name.c_str());
    archive_entry_set_mode(handle.get(), entry.mode);
    archive_entry_set_uid(handle.get(), entry.user);
    archive_entry_set_gid(handle.get(), entry.group);
    archive_entry_set_atime(handle.get(), entry.accessed.tv_sec, entry.accessed.tv_nsec);
    archive_entry_set_mtime(handle.get(), entry.modified.tv_sec, entry.modified.tv_nsec);
    archive_entry_set_size(handle.get(), static_cast<la_int64_t>(entry.content.size()));
    if (!entry.symbolicTarget.empty()) {
        archive_entry_set_symlink(handle.get(), entry.symbolicTarget.c_str());
    }
    if (!entry.hardTarget.empty()) {
        archive_entry_set_hardlink(handle.get(), entry.hardTarget.c_str());
    }
    if (S_ISCHR(entry.mode)) {
        archive_entry_set_rdev(handle.get(), entry.device);
    }
    for (const Grant& grant : entry.grants) {
        archive_entry_acl_add_entry(handle.get(), ARCHIVE_ENTRY_ACL_TYPE_ACCESS, grant.permissions,
                                    ARCHIVE_ENTRY_ACL_USER, grant.userId, grant.userName.c_str());
    }
    if (entry.accessMask) {
        archive_entry_acl_add_entry(handle.get(), ARCHIVE_ENTRY_ACL_TYPE_ACCESS, *entry.accessMask,
                                    ARCHIVE_ENTRY_ACL_MASK, -1, nullptr);
    }
    if (!entry.flags.empty()) {
        archive_entry_copy_fflags_text(handle.get(), entry.flags.c_str());
    }

    require(archive_write_header(writer, handle.get()), writer);
    if (!entry.content.empty() &&
        archive_write_data(writer, entry.content.data(), entry.content.size()) !=
            static_cast<la_ssize_t>(entry.content.size())) {
        throw std::runtime_error(archive_error_string(writer));
    }
}

std::string ArchiveBuilder::bytes() const {
    std::string output;
    Writer writer(archive_write_new());
    selectFormat(writer.get(), format);
    require(archive_write_set_bytes_in_last_block(writer.get(), 1), writer.get());
    if (!passphrase.empty()) {
        require(archive_write_set_options(writer.get(), "zip:encryption=aes256"), writer.get());
        require(archive_write_set_passphrase(writer.get(), passphrase.c_str()), writer.get());
    }
    require(archive_write_open2(writer.get(), &output, nullptr, appendBytes, nullptr, nullptr),
            writer.get());
    for (const Entry& entry : entries) {
        append(writer.get(), entry);
    }
    require(archive_write_close(writer.get()), writer.get());
    return output;
}

std::string ArchiveBuilder::write(const std::string& path) const {
    std::ofstream stream(path, std::ios::binary);
    stream << bytes();
    stream.close();
    if (!stream) {
        throw std::runtime_error("cannot write " + path);
    }
    return path;
}

void PrintTo(ArchiveBuilder::Format format, std::ostream* stream) {
    switch (format) {
        case ArchiveBuilder::Format::Tar:
            *stream << "Tar";
            break;
        case ArchiveBuilder::Format::TarGz:
            *stream << "TarGz";
            break;
        case ArchiveBuilder::Format::TarZst:
            *stream << "TarZst";
            break;
        case ArchiveBuilder::Format::Zip:
            *stream << "Zip";
            break;
        case ArchiveBuilder::Format::SevenZip:
            *stream << "SevenZip";
            break;
    }
}

std::string truncated(const std::string& archive) {
    return archive.substr(0, archive.size() / 2);
}

std::string corrupted(const std::string& archive) {
    const std::size_t half = archive.size() / 2;
    return archive.substr(0, half) + std::string(archive.size() - half, '\xff');
}

std::string noise(std::size_t length) {
    std::mt19937 engine(20250101);
    std::string text(length, '\0');
    for (char& byte : text) {
        byte = static_cast<char>('!' + engine() % 90);
    }
    return text;
}

}  // namespace kolvan::test
