#include "tests/support/standin/PackageDirectory.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kolvan::test {

PackageFile::PackageFile(basekit2::UniqueFd openFile, std::uint64_t size)
    : file(std::move(openFile)), fileSize(size) {}

std::optional<std::string> PackageFile::read(std::uint64_t offset, std::size_t length) const {
    std::string data(length, '\0');
    ssize_t count = 0;
    do {
        count = pread(file.get(), data.data(), length, static_cast<off_t>(offset));
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
        return std::nullopt;
    }
    data.resize(static_cast<std::size_t>(count));
    return data;
}

std::shared_ptr<const PackageFile> openPackage(const std::filesystem::path& directory,
                                               const std::string& name) {
    const bool plain = !name.empty() && name != "." && name != ".." &&
                       name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
    if (directory.empty() || !plain) {
        return nullptr;
    }
    // Non-blocking, so that a pipe which lies there by mistake does not hold the request for ever.
    basekit2::UniqueFd file(open((directory / name).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return nullptr;
    }
    return std::make_shared<const PackageFile>(std::move(file),
                                               static_cast<std::uint64_t>(status.st_size));
}

std::string rawPackageName(std::string_view target) {
    constexpr std::string_view kParameter = "targetPackageArchiveName=";
    const std::size_t begin = target.find(kParameter);
    return begin == std::string_view::npos ? std::string()
                                           : std::string(target.substr(begin + kParameter.size()));
}

}  // namespace kolvan::test
