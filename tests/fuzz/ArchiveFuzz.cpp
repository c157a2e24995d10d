// The input is an archive, or, where it begins with "entries" and a line end, a description of one:
// a line for each entry, its kind, a blank, its name and, after a tab, what it holds or links to.
// Kinds are f(ile), x (one to run), d(irectory), s(ymbolic link), h(ard link), p(ipe), c(haracter
// device).
#include "operations/ExtractArchive.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/fuzz/Jail.h"
#include "tests/support/ArchiveBuilder.h"

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

namespace fs = std::filesystem;
using kolvan::test::ArchiveBuilder;
using namespace kolvan::fuzz;

constexpr const char* kDescription = "entries\n";
constexpr const char* kArchive = "/archive";
constexpr const char* kTarget = "/target";

// Before any thread: a process with threads cannot have namespaces of its own.
Jail jail;

using Files = std::map<std::string, std::string>;

void addEntry(ArchiveBuilder& builder, char kind, const std::string& name,
              const std::string& content) {
    switch (kind) {
        case 'f':
            builder.file(name, content);
            break;
        case 'x':
            builder.file(name, content, 0755);
            break;
        case 'd':
            builder.directory(name);
            break;
        case 's':
            builder.symbolicLink(name, content);
            break;
        case 'h':
            builder.hardLink(name, content);
            break;
        case 'p':
            builder.fifo(name);
            break;
        case 'c':
            builder.characterDevice(name, makedev(1, 3));
            break;
        default:
            break;
    }
}

std::string describedArchive(const std::string& description) {
    ArchiveBuilder builder(ArchiveBuilder::Format::Tar);
    for (const std::string& line : split(description, '\n')) {
        if (line.size() > 2) {
            const std::vector<std::string> words = split(line.substr(2), '\t');
            addEntry(builder, line.front(), words.front(), words.back());
        }
    }
    return builder.bytes();
}

// The files of a description that has plain names only, each once; nothing where it has others. A
// name that no file can have is reported and passed over, as an entry that cannot be made is.
std::optional<Files> plainFiles(const std::string& description) {
    Files files;
    for (const std::string& line : split(description, '\n')) {
        const std::vector<std::string> words = split(line, '\t');
        const bool plain =
            words.size() == 2 && words.front().size() > 2 && words.front().size() <= 2 + NAME_MAX &&
            words.front().rfind("f ", 0) == 0 &&
            std::all_of(words.front().begin() + 2, words.front().end(),
                        [](char character) { return character >= 'a' && character <= 'z'; });
        if (!plain || !files.emplace(words.front().substr(2), words.back()).second) {
            return std::nullopt;
        }
    }
    return files;
}

bool climbs(const char* name) {
    const auto components = name != nullptr ? split(name, '/') : std::vector<std::string>();
    return std::find(components.begin(), components.end(), "..") != components.end();
}

// Whether no entry may land outside of the target. Deliberately, names may climb and links may
// lead anywhere: a package is as trusted as the program in it.
bool staysInside() {
    const std::unique_ptr<archive, int (*)(archive*)> reader(archive_read_new(), archive_read_free);
    (void)archive_read_support_format_all(reader.get());
    (void)archive_read_support_filter_all(reader.get());
    archive_entry* entry = nullptr;
    bool inside = archive_read_open_filename(reader.get(), kArchive, 10240) == ARCHIVE_OK;
    while (inside && archive_read_next_header(reader.get(), &entry) >= ARCHIVE_WARN) {
        if (archive_read_has_encrypted_entries(reader.get()) > 0) {
            return false;
        }
        inside =
            archive_entry_filetype(entry) != AE_IFLNK && archive_entry_symlink(entry) == nullptr &&
            !climbs(archive_entry_pathname(entry)) && !climbs(archive_entry_pathname_utf8(entry)) &&
            !climbs(archive_entry_hardlink(entry)) && !climbs(archive_entry_hardlink_utf8(entry));
    }
    return inside;
}

std::string contentOf(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void write(const std::string& file, const std::string& content) {
    std::ofstream(file, std::ios::binary) << content;
}

// Everything beside the target, as one text.
std::string surroundings() {
    std::string text;
    for (fs::recursive_directory_iterator entry("/"); entry != fs::recursive_directory_iterator();
         ++entry) {
        if (entry->path() == kTarget) {
            entry.disable_recursion_pending();
            continue;
        }
        struct stat status {};
        (void)::lstat(entry->path().c_str(), &status);
        text += entry->path().string() + " " + std::to_string(status.st_mode) + " " +
                std::to_string(status.st_nlink) + " " + std::to_string(status.st_mtim.tv_sec) +
                "." + std::to_string(status.st_mtim.tv_nsec) + " " +
                (entry->is_regular_file() ? contentOf(entry->path()) : "") + "\n";
    }
    return text;
}

void extractAndAudit(const std::string& bytes, const std::optional<Files>& files) {
    write(kArchive, bytes);
    fs::create_directory(kTarget);
    fs::create_directory("/outside");
    write("/outside/file", "witness");
    const bool inside = staysInside();
    const std::string before = surroundings();
    const int descriptor = lowestFreeDescriptor();

    const bool whole = cagnt1::operations::extractArchive(kArchive, kTarget);

    require(descriptor == lowestFreeDescriptor(), "an extraction leaves no descriptor open");
    if (inside) {
        requireEqual(before, surroundings(), "nothing is written outside of the target");
    }
    if (files) {
        require(whole, "an archive of plain files is extracted whole");
        for (const auto& [name, content] : *files) {
            requireEqual(content, contentOf(fs::path(kTarget) / name), "a file arrives whole");
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silenceStreams();
    std::string bytes(reinterpret_cast<const char*>(data), size);
    std::optional<Files> files;
    if (bytes.rfind(kDescription, 0) == 0) {
        const std::string description = bytes.substr(std::string(kDescription).size());
        files = plainFiles(description);
        try {
            bytes = describedArchive(description);
        } catch (const std::runtime_error&) {
            return -1;  // the format cannot express it
        }
    }
    jail.run([&] { extractAndAudit(bytes, files); });
    return 0;
}
