#include "companions/server/symbols/SymbolFiles.h"

#include "companions/server/base/PrivateDirectories.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <tuple>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

namespace kolvan::server::symbols {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kShortestBuildId = 2;
constexpr std::size_t kLongestBuildId = 128;

basekit2::UniqueFd opened(const fs::path& path) {
    return basekit2::UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
}

/// @return nothing where there is none (any more)
std::optional<struct stat> statusOf(const fs::path& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        throw std::system_error(errno, std::generic_category(), path.string());
    }
    return status;
}

std::chrono::nanoseconds timeOf(const timespec& time) {
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

std::optional<Symbols> symbolsAt(const fs::path& file) {
    const std::optional<struct stat> status = statusOf(file);
    if (!status) {
        return std::nullopt;
    }
    return Symbols{file.parent_path().filename(), file.filename(),
                   static_cast<std::uint64_t>(status->st_size),
                   UtcTime(std::chrono::floor<UtcTime::duration>(timeOf(status->st_mtim)))};
}

}  // namespace

SymbolFiles::SymbolFiles(const fs::path& filesDirectory)
    : kept(filesDirectory / "kept"), incoming(filesDirectory / "incoming") {
    makePrivateDirectories(kept);
}

bool SymbolFiles::isBuildId(std::string_view text) {
    return text.size() >= kShortestBuildId && text.size() <= kLongestBuildId &&
           text.size() % 2 == 0 &&
           text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

bool SymbolFiles::isName(std::string_view text) {
    constexpr std::string_view kAllowed =
        "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ.-_+@";
    return !text.empty() && text.size() <= kLongestName && text.front() != '.' &&
           text.find_first_not_of(kAllowed) == std::string_view::npos;
}

IncomingFile SymbolFiles::begin(const std::string& buildId, const std::string& name) const {
    return incoming.begin(kept / buildId / name);
}

Symbols SymbolFiles::keep(IncomingFile file, const std::string& buildId) {
    basekit2::UniqueFd received = opened(file.path());
    if (!received) {
        throw std::system_error(errno, std::generic_category(), file.path().string());
    }
    const SymbolFile content(std::move(received));
    if (content.buildId() != buildId) {
        throw UnreadableSymbols(content.buildId().empty() ? "This ELF file has no build-id."
                                                          : "This ELF file has another build-id: " +
                                                                content.buildId() + '.');
    }
    if (content.size() == 0) {
        throw UnreadableSymbols("This ELF file names no functions.");
    }
    const std::lock_guard lock(changing);
    const fs::path place = file.finalPath();
    file.keep();
    for (const auto& entry : fs::directory_iterator(place.parent_path())) {
        if (entry.path() != place) {
            fs::remove(entry.path());  // the one before, which had another name
        }
    }
    return symbolsAt(place).value();
}

std::vector<Symbols> SymbolFiles::list() const {
    std::vector<Symbols> all;
    for (const auto& directory : fs::directory_iterator(kept)) {
        const std::optional<fs::path> file = find(directory.path().filename());
        std::optional<Symbols> symbols = file ? symbolsAt(*file) : std::nullopt;
        if (symbols) {
            all.push_back(std::move(*symbols));
        }
    }
    std::sort(all.begin(), all.end(), [](const Symbols& left, const Symbols& right) {
        return std::tie(right.added, right.buildId) < std::tie(left.added, left.buildId);
    });
    return all;
}

bool SymbolFiles::remove(const std::string& buildId) {
    const std::lock_guard lock(changing);
    return isBuildId(buildId) && fs::remove_all(kept / buildId) > 0;
}

std::string SymbolFiles::stampOf(const std::string& buildId) const {
    const std::optional<fs::path> file = find(buildId);
    const std::optional<struct stat> status = file ? statusOf(*file) : std::nullopt;
    return status ? std::to_string(status->st_ino) + ' ' + std::to_string(status->st_size) + ' ' +
                        std::to_string(timeOf(status->st_mtim).count())
                  : "";
}

std::vector<std::string> SymbolFiles::namesAt(const std::string& buildId,
                                              std::span<const std::uint64_t> addresses) const {
    const std::optional<fs::path> path = find(buildId);
    basekit2::UniqueFd file = path ? opened(*path) : basekit2::UniqueFd();
    if (file) {
        try {
            return SymbolFile(std::move(file)).namesAt(addresses);
        } catch (const UnreadableSymbols&) {
            // It was readable when it was kept: what has become of it since names nothing.
        }
    }
    return std::vector<std::string>(addresses.size());
}

/// The file of a build-id. While another one takes its place there may be two, of which either will
/// do.
std::optional<fs::path> SymbolFiles::find(const std::string& buildId) const {
    if (!isBuildId(buildId)) {
        return std::nullopt;
    }
    std::error_code error;
    const fs::directory_iterator entries(kept / buildId, error);
    if (error && error != std::errc::no_such_file_or_directory) {
        throw std::system_error(error, (kept / buildId).string());
    }
    return error || entries == fs::directory_iterator() ? std::nullopt
                                                        : std::optional(entries->path());
}

}  // namespace kolvan::server::symbols
