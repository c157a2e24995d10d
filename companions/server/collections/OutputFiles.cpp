#include "companions/server/collections/OutputFiles.h"

#include "basekit2/UniqueFd.h"
#include "companions/server/base/IncomingFiles.h"
#include "companions/server/base/PrivateDirectories.h"
#include "companions/server/collections/Directories.h"
#include "companions/server/store/Names.h"

#include <cerrno>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kolvan::server {

namespace {

constexpr mode_t kOwnerOnly = 0600;

[[noreturn]] void fail(const std::filesystem::path& path) {
    throw std::system_error(errno, std::generic_category(), path.string());
}

basekit2::UniqueFd openToAppend(const std::filesystem::path& file) {
    return basekit2::UniqueFd(
        ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kOwnerOnly));
}

}  // namespace

OutputFiles::OutputFiles(std::filesystem::path outputDirectory)
    : directory(std::move(outputDirectory)) {
    makePrivateDirectories(directory);
}

std::uint64_t OutputFiles::append(const OperationId& operation, OutputChannel channel,
                                  std::string_view bytes) const {
    const std::filesystem::path file = path(operation, channel);
    basekit2::UniqueFd opened = openToAppend(file);
    if (!opened && errno == ENOENT) {
        makePrivateDirectories(file.parent_path());
        opened = openToAppend(file);
    }
    if (!opened) {
        fail(file);
    }
    writeAll(opened.get(), bytes, file);
    addedBytes += bytes.size();
    struct stat status {};
    if (::fstat(opened.get(), &status) != 0) {
        fail(file);
    }
    return static_cast<std::uint64_t>(status.st_size);
}

std::uint64_t OutputFiles::size(const OperationId& operation, OutputChannel channel) const {
    const std::filesystem::path file = path(operation, channel);
    struct stat status {};
    if (::stat(file.c_str(), &status) != 0) {
        if (errno == ENOENT) {
            return 0;
        }
        fail(file);
    }
    return static_cast<std::uint64_t>(status.st_size);
}

std::size_t OutputFiles::read(const OperationId& operation, OutputChannel channel,
                              std::uint64_t offset, std::span<char> buffer) const {
    const std::filesystem::path file = path(operation, channel);
    const basekit2::UniqueFd opened(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!opened) {
        if (errno == ENOENT) {
            return 0;
        }
        fail(file);
    }
    std::size_t filled = 0;
    while (filled < buffer.size()) {
        const ssize_t count = ::pread(opened.get(), buffer.data() + filled, buffer.size() - filled,
                                      static_cast<off_t>(offset + filled));
        if (count < 0 && errno != EINTR) {
            fail(file);
        }
        if (count == 0) {
            break;
        }
        filled += count > 0 ? static_cast<std::size_t>(count) : 0U;
    }
    return filled;
}

std::filesystem::path OutputFiles::path(const OperationId& operation, OutputChannel channel) const {
    return directory / nameForPath(operation.text) / nameOf(channel);
}

void OutputFiles::remove(const OperationId& operation) const {
    std::filesystem::remove_all(directory / nameForPath(operation.text));
}

}  // namespace kolvan::server
