#include "tests/support/standin/PackageDirectory.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kolvan::test {

PackageFile::PackageFile(int openDescriptor, std::uint64_t size)
    : descriptor(openDescriptor), fileSize(size) {}

PackageFile::~PackageFile() {
    close(descriptor);
}

std::optional<std::string> PackageFile::read(std::uint64_t offset, std::size_t length) const {
    std::string data(length, '\0');
    ssize_t count = 0;
    do {
        count = pread(descriptor, data.data(), length, static_cast<off_t>(offset));
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
    const int descriptor = open((directory / name).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) {
        return nullptr;
    }
    struct stat status {};
    const bool usable = fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
    auto file =
        std::make_shared<const PackageFile>(descriptor, static_cast<std::uint64_t>(status.st_size));
    return usable ? file : nullptr;
}

std::string rawPackageName(std::string_view target) {
    constexpr std::string_view kParameter = "targetPackageArchiveName=";
    const std::size_t begin = target.find(kParameter);
    return begin == std::string_view::npos ? std::string()
                                           : std::string(target.substr(begin + kParameter.size()));
}

}  // namespace kolvan::test
