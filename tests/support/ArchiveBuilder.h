#pragma once

#include <cstdint>
#include <ctime>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

struct archive;

namespace kolvan::test {

/// Makes an archive entry by entry, well-formed or not: names are written as they are given.
class ArchiveBuilder {
public:
    enum class Format { Tar, TarGz, TarZst, Zip, SevenZip };

    explicit ArchiveBuilder(Format format = Format::TarGz);

    ArchiveBuilder& file(const std::string& name, const std::string& content,
                         mode_t permissions = 0644);
    ArchiveBuilder& directory(const std::string& name, mode_t permissions = 0755);
    ArchiveBuilder& symbolicLink(const std::string& name, const std::string& target);
    ArchiveBuilder& hardLink(const std::string& name, const std::string& target);
    ArchiveBuilder& fifo(const std::string& name);
    ArchiveBuilder& characterDevice(const std::string& name, dev_t number);

    /// Owner of the entry that was added last; 0 and 0 unless told.
    ArchiveBuilder& owner(std::int64_t user, std::int64_t group);

    /// Times of the entry that was added last.
    ArchiveBuilder& times(const timespec& accessed, const timespec& modified);

    /// Adds an entry for a user to the access list of the entry that was added last.
    /// @param permissions 0 to 7, as in a mode
    ArchiveBuilder& grant(const std::string& userName, int userId, int permissions);

    /// Limits what the access list of the entry that was added last grants to users. A list with
    /// users and without it is not valid.
    ArchiveBuilder& accessMask(int permissions);

    /// File flags of the entry that was added last, for example "nodump".
    ArchiveBuilder& fileFlags(const std::string& flags);

    /// Encrypts the content of every entry. Zip only.
    ArchiveBuilder& encrypt(const std::string& secret);

    /// The whole archive.
    /// @throws std::runtime_error when it cannot be made
    std::string bytes() const;

    /// Writes the archive to a file, whose directory must exist.
    /// @return `path`
    std::string write(const std::string& path) const;

private:
    struct Grant {
        std::string userName;
        int userId;
        int permissions;
    };
    struct Entry {
        std::string name;
        mode_t mode;  // type and permissions
        std::string content;
        std::string symbolicTarget;
        std::string hardTarget;
        dev_t device;
        std::int64_t user;
        std::int64_t group;
        timespec accessed;
        timespec modified;
        std::vector<Grant> grants;
        std::optional<int> accessMask;
        std::string flags;
    };

    ArchiveBuilder& add(const std::string& name, mode_t mode);
    static void append(archive* writer, const Entry& entry);

    Format format;
    std::string passphrase;
    std::vector<Entry> entries;
};

/// Names a format, for the names and failures of tests.
void PrintTo(ArchiveBuilder::Format format, std::ostream* stream);

/// The first half of an archive.
std::string truncated(const std::string& archive);

/// An archive of the same length whose second half is garbage.
std::string corrupted(const std::string& archive);

/// Text without a pattern that compression could use; the same at every call.
std::string noise(std::size_t length);

}  // namespace kolvan::test
