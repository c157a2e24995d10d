#include "companions/server/profiles/ProfileCache.h"

#include "basekit2/UniqueFd.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>

namespace kolvan::server::profiles {

namespace {

/// Takes note of what is asked, so that it can be asked again whether it has changed.
class NotedNames final : public CodeNames {
public:
    explicit NotedNames(const CodeNames& askedNames) : asked(askedNames) {}

    std::string stampOf(const std::string& buildId) const override {
        std::string stamp = asked.stampOf(buildId);
        stamps.emplace(buildId, stamp);
        return stamp;
    }
    std::vector<std::string> namesAt(const std::string& buildId,
                                     std::span<const std::uint64_t> addresses) const override {
        return asked.namesAt(buildId, addresses);
    }

    std::map<std::string, std::string> take() { return std::move(stamps); }

private:
    const CodeNames& asked;
    mutable std::map<std::string, std::string> stamps;
};

struct stat statusOf(const basekit2::UniqueFd& file, const std::filesystem::path& path) {
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        throw std::system_error(errno, std::generic_category(), "open " + path.string());
    }
    return status;
}

}  // namespace

ProfileCache::FileStamp::FileStamp(const struct stat& status)
    : numbers{static_cast<std::int64_t>(status.st_dev),
              static_cast<std::int64_t>(status.st_ino),
              status.st_size,
              status.st_mtim.tv_sec,
              status.st_mtim.tv_nsec,
              status.st_ctim.tv_sec,
              status.st_ctim.tv_nsec} {}

ProfileCache::ProfileCache(const CodeNames& codeNames, std::size_t mostBytes,
                           const ProfileLimits& profileLimits)
    : names(codeNames), most(mostBytes), limits(profileLimits) {}

std::shared_ptr<const Profile> ProfileCache::get(const std::filesystem::path& path,
                                                 const std::function<void()>& proceed) {
    const basekit2::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const FileStamp stamp(statusOf(file, path));
    const auto found =
        std::find_if(kept.begin(), kept.end(), [&](const Kept& one) { return one.path == path; });
    if (found != kept.end()) {
        if (isCurrent(*found, stamp)) {
            kept.splice(kept.begin(), kept, found);
            return profileOf(*found);
        }
        bytes -= found->bytes;
        kept.erase(found);
    }
    if (bytes > most) {
        clear();  // of one that takes more than all may: two of them would be twice the memory
    }
    const Kept fresh = read(path, file.get(), stamp, proceed);
    keep(fresh);
    return profileOf(fresh);
}

std::shared_ptr<const Profile> ProfileCache::profileOf(const Kept& one) {
    if (!one.profile) {
        throw UnreadableProfile(one.failure);
    }
    return one.profile;
}

ProfileCache::Kept ProfileCache::read(const std::filesystem::path& path, int file,
                                      const FileStamp& stamp,
                                      const std::function<void()>& proceed) const {
    NotedNames noted(names);
    const auto pieces = [&proceed, source = sourceOf(file, path)](char* buffer, std::size_t size) {
        proceed();
        return source(buffer, size);
    };
    Kept result{path, stamp, {}, nullptr, {}, 0};
    try {
        result.profile = std::make_shared<const Profile>(readProfile(pieces, limits, noted));
        result.bytes = memoryOf(*result.profile);
    } catch (const UnreadableProfile& failure) {
        result.failure = failure.what();
        result.bytes = sizeof result + path.native().size() + result.failure.size();
    }
    result.nameStamps = noted.take();
    return result;
}

void ProfileCache::clear() {
    kept.clear();
    bytes = 0;
}

bool ProfileCache::isCurrent(const Kept& one, const FileStamp& stamp) const {
    return one.stamp == stamp &&
           std::all_of(one.nameStamps.begin(), one.nameStamps.end(), [this](const auto& known) {
               return names.stampOf(known.first) == known.second;
           });
}

void ProfileCache::keep(Kept one) {
    bytes += one.bytes;
    kept.push_front(std::move(one));
    while (bytes > most && kept.size() > 1) {
        bytes -= kept.back().bytes;
        kept.pop_back();
    }
}

}  // namespace kolvan::server::profiles
