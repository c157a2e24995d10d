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

basekit2::UniqueFd openOrMake(const std::filesystem::path& file) {
    return basekit2::UniqueFd(
        ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kOwnerOnly));
}

std::uint64_t sizeOf(int descriptor, const std::filesystem::path& file) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) {
        fail(file);
    }
    return static_cast<std::uint64_t>(status.st_size);
}

}  // namespace

OutputFiles::OutputFiles(std::filesystem::path outputDirectory)
    : directory(std::move(outputDirectory)) {
    makePrivateDirectories(directory);
}

std::uint64_t OutputFiles::append(const OperationId& operation, OutputChannel channel,
                                  std::string_view bytes) const {
    const Channel whole(operation, channel);
    const std::filesystem::path file = path(operation, channel);
    try {
        const basekit2::UniqueFd opened = openToAppend(whole);
        closeGap(whole, opened.get());
        writeAll(opened.get(), bytes, file);
        addedBytes += bytes.size();
        return sizeOf(opened.get(), file);
    } catch (...) {  // whatever it is: they are not there
        noteGap(operation, channel);
        throw;
    }
}

void OutputFiles::noteGap(const OperationId& operation, OutputChannel channel) const {
    const std::lock_guard lock(mutex);
    gaps.emplace(operation, channel);
}

void OutputFiles::finish(const OperationId& operation) const {
    for (const OutputChannel channel :
         {OutputChannel::Stdout, OutputChannel::Stderr, OutputChannel::Feedback}) {
        const Channel whole(operation, channel);
        if (hasGap(whole)) {
            closeGap(whole, openToAppend(whole).get());
        }
    }
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
    const std::lock_guard lock(mutex);
    std::erase_if(gaps, [&](const Channel& channel) { return channel.first == operation; });
}

basekit2::UniqueFd OutputFiles::openToAppend(const Channel& channel) const {
    const std::filesystem::path file = path(channel.first, channel.second);
    basekit2::UniqueFd opened = openOrMake(file);
    if (!opened && errno == ENOENT) {
        makePrivateDirectories(file.parent_path());
        opened = openOrMake(file);
    }
    if (!opened) {
        fail(file);
    }
    return opened;
}

bool OutputFiles::hasGap(const Channel& channel) const {
    const std::lock_guard lock(mutex);
    return gaps.contains(channel);
}

void OutputFiles::closeGap(const Channel& channel, int file) const {
    if (!hasGap(channel)) {
        return;
    }
    const std::filesystem::path name = path(channel.first, channel.second);
    const std::uint64_t before = sizeOf(file, name);
    try {
        writeAll(file, kGap, name);
    } catch (...) {  // a part of the line would say nothing; it is written again
        (void)::ftruncate(file, static_cast<off_t>(before));
        throw;
    }
    const std::lock_guard lock(mutex);
    gaps.erase(channel);
}

}  // namespace kolvan::server
