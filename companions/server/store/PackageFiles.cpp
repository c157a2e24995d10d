#include "companions/server/store/PackageFiles.h"

#include "basekit2/UniqueFd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kolvan::server {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kPieceBytes = 65536;

[[noreturn]] void fail(const std::string& what, int number) {
    throw std::runtime_error(what + ": " + std::generic_category().message(number));
}

// Agents ask for the name as it stands, without encoding it.
void checkName(const std::string& name) {
    static constexpr std::string_view kPlain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-_";
    if (name.empty() || name.size() > 255 || name.front() == '.' ||
        name.find_first_not_of(kPlain) != std::string::npos) {
        throw std::invalid_argument(
            "'" + name +
            "' is no name for a package: agents can ask for letters, digits, "
            "dots, dashes and underscores, with no dot in front");
    }
}

/// A file that goes away unless it is kept.
class NewFile {
public:
    explicit NewFile(const fs::path& directory) : name(directory / ".new-XXXXXX") {
        descriptor.reset(::mkostemp(name.data(), O_CLOEXEC));
        if (!descriptor) {
            fail("Failed to write into " + directory.string(), errno);
        }
    }
    ~NewFile() {
        if (!name.empty()) {
            (void)::unlink(name.c_str());  // it would only take up room
        }
    }

    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    void write(const std::byte* bytes, std::size_t count) {
        while (count > 0) {
            const ssize_t written = ::write(descriptor.get(), bytes, count);
            if (written < 0 && errno != EINTR) {
                fail("Failed to write " + name, errno);
            }
            const auto done = static_cast<std::size_t>(std::max<ssize_t>(written, 0));
            bytes += done;
            count -= done;
        }
    }

    /// Gives it its name once it is on the disk.
    void keepAs(const fs::path& file) {
        if (::fsync(descriptor.get()) != 0 || ::rename(name.c_str(), file.c_str()) != 0) {
            fail("Failed to write " + file.string(), errno);
        }
        name.clear();
        const basekit2::UniqueFd directory(
            ::open(file.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!directory || ::fsync(directory.get()) != 0) {
            fail("Failed to write " + file.string(), errno);
        }
    }

private:
    std::string name;
    basekit2::UniqueFd descriptor;
};

basekit2::UniqueFd opened(const fs::path& archive) {
    basekit2::UniqueFd descriptor(::open(archive.c_str(), O_RDONLY | O_CLOEXEC));
    if (!descriptor) {
        fail(archive.string(), errno);
    }
    struct stat status {};
    if (::fstat(descriptor.get(), &status) != 0) {
        fail(archive.string(), errno);
    }
    if (!S_ISREG(status.st_mode)) {
        throw std::runtime_error(archive.string() + " is no file");
    }
    return descriptor;
}

}  // namespace

fs::path fileOf(const Package& package, const fs::path& directory) {
    return directory / package.hash.hex();
}

Package addPackage(PackageStore& store, const fs::path& directory, PackageArchitecture architecture,
                   const fs::path& archive) {
    Package package;
    package.architecture = architecture;
    package.name = archive.filename().string();
    checkName(package.name);
    const basekit2::UniqueFd source = opened(archive);
    NewFile copy(directory);
    Sha256Sum sum;
    std::vector<std::byte> piece(kPieceBytes);
    for (;;) {
        const ssize_t count = ::read(source.get(), piece.data(), piece.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            fail(archive.string(), errno);
        }
        if (count == 0) {
            break;
        }
        const auto size = static_cast<std::size_t>(count);
        sum.add({piece.data(), size});
        copy.write(piece.data(), size);
        package.sizeBytes += size;
    }
    package.hash = sum.finish();
    const std::vector<Package> before = store.list();
    copy.keepAs(fileOf(package, directory));
    store.put(package);
    const std::vector<Package> after = store.list();
    for (const Package& old : before) {
        const bool used = std::any_of(after.begin(), after.end(),
                                      [&](const Package& each) { return each.hash == old.hash; });
        if (!used) {
            // Whoever has it open reads on. One that stays only takes up room.
            (void)::unlink(fileOf(old, directory).c_str());
        }
    }
    return store.find(package.name).value_or(package);
}

}  // namespace kolvan::server
