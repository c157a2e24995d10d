#pragma once

#include "companions/server/profiles/CodeNames.h"
#include "companions/server/profiles/Profile.h"
#include "companions/server/profiles/ProfileReader.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>

#include <sys/stat.h>

namespace kolvan::server::profiles {

/// Reads profiles, and keeps those that were asked for last: whoever looks at one mostly wants
/// several views of it. That a file cannot be read is kept as well.
///
/// What is kept is given out as long as the file and the names that were found elsewhere for its
/// code are the same.
///
/// Threads: one at a time. What it gives out may be used by any.
class ProfileCache {
public:
    /// @param codeNames outlive the cache
    /// @param mostBytes how much memory the kept profiles may take; one that takes more is kept
    ///        alone, until another one is read
    ProfileCache(const CodeNames& codeNames, std::size_t mostBytes,
                 const ProfileLimits& profileLimits = {});

    /// Finds or reads a profile.
    /// @param proceed called before each piece of the file that is read; what it throws ends that
    /// @throws UnreadableProfile, std::system_error, and what `proceed` throws
    std::shared_ptr<const Profile> get(const std::filesystem::path& path,
                                       const std::function<void()>& proceed);

    /// Lets go of all that is kept.
    void clear();

private:
    /// What tells a file from one that was written in its place.
    struct FileStamp {
        explicit FileStamp(const struct stat& status);
        bool operator==(const FileStamp&) const = default;

        std::array<std::int64_t, 7> numbers;
    };

    struct Kept {
        std::filesystem::path path;
        FileStamp stamp;
        std::map<std::string, std::string>
            nameStamps;                          // by build-id, as they were when it was read
        std::shared_ptr<const Profile> profile;  // null: the file cannot be read
        std::string failure;                     // why not
        std::size_t bytes = 0;
    };

    Kept read(const std::filesystem::path& path, int file, const FileStamp& stamp,
              const std::function<void()>& proceed) const;
    static std::shared_ptr<const Profile> profileOf(const Kept& one);
    bool isCurrent(const Kept& one, const FileStamp& stamp) const;
    void keep(Kept one);

    const CodeNames& names;
    const std::size_t most;
    const ProfileLimits limits;
    std::list<Kept> kept;  // the one that was asked for last comes first
    std::size_t bytes = 0;
};

}  // namespace kolvan::server::profiles
