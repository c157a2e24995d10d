// The input is lines. The first one spells the way from a directory to the result directory below
// it, with empty and "." components and with ".." after others; every other one is a file below the
// result directory, or, where it ends with "/", a directory, or, where it holds " -> ", a link.
#include "operations/TraceFiles.h"

#include "tests/fuzz/Fuzz.h"
#include "tests/fuzz/Jail.h"

#include <boost/filesystem/exception.hpp>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace kolvan::fuzz;
using Texts = std::vector<std::string>;

constexpr std::size_t kMaxFiles = 30;
constexpr std::size_t kMaxDepth = 12;
const std::string kLink = " -> ";

const std::string kRoot = "/scene";

// Links may lead anywhere. Before any thread: a process with threads cannot have namespaces of its
// own.
Jail jail;

// Names that a file system can have, and no way out.
bool usable(const Texts& components) {
    return components.size() <= kMaxDepth &&
           std::all_of(components.begin(), components.end(), [](const std::string& component) {
               return component.size() <= 100 && component != ".." &&
                      component.find('\0') == std::string::npos;
           });
}

std::string joined(const std::string& directory, const std::string& name) {
    return directory.empty() ? name : directory + "/" + name;
}

// Makes every directory on the way and returns the way as it is spelled: the directory itself has
// no name of its own that the spelling could leave.
std::string makeSpelled(const std::string& spelling) {
    std::string way = kRoot;
    int depth = 0;
    for (const std::string& component : split(spelling, '/')) {
        if (component == ".." && --depth < 0) {
            break;
        }
        depth += component.empty() || component == "." || component == ".." ? 0 : 1;
        way += "/" + component;
        std::error_code exists;
        fs::create_directories(way, exists);
    }
    return way + "/result";
}

// What the lines ask for and the file system allows.
void makeFiles(const std::string& result, const Texts& lines) {
    std::error_code ignored;  // a name in the way of another one
    for (std::size_t index = 1; index < std::min(lines.size(), kMaxFiles); ++index) {
        const std::string& line = lines[index];
        const std::size_t link = line.find(kLink);
        const std::string name = line.substr(0, link);
        if (!usable(split(name, '/'))) {
            continue;
        }
        const fs::path path = fs::path(result) / ("./" + name);
        if (link != std::string::npos) {
            fs::create_symlink(line.substr(link + kLink.size()), path, ignored);
        } else if (name.empty() || name.back() == '/') {
            fs::create_directories(path, ignored);
        } else {
            fs::create_directories(path.parent_path(), ignored);
            (void)std::ofstream(path);
        }
    }
}

using Listing = std::multiset<std::pair<std::string, std::string>>;

// Walks with the names alone: there is no arithmetic of paths that could go wrong. Returns false
// where there is an entry whose status cannot be read, such as a link to itself.
bool listExpected(const std::string& spelled, const std::string& relative, Listing& listing) {
    bool readable = true;
    for (const fs::directory_entry& entry : fs::directory_iterator(spelled)) {
        const std::string name = entry.path().filename().string();
        const std::string path = joined(spelled, name);
        std::error_code error;
        const fs::file_status status = fs::status(path, error);
        readable = readable && status.type() != fs::file_type::none;
        if (fs::is_directory(status)) {
            readable =
                (entry.is_symlink() || listExpected(path, joined(relative, name), listing)) &&
                readable;
        } else if (path.find("data") != std::string::npos) {
            listing.emplace(path, relative);
        }
    }
    return readable;
}

std::optional<Listing> listActual(const std::string& result) {
    Listing listing;
    try {
        for (const auto& file : cagnt1::operations::findTraceFiles(result)) {
            listing.emplace(file.filePath, file.relativeDirectory);
        }
    } catch (const boost::filesystem::filesystem_error&) {
        return std::nullopt;
    }
    return listing;
}

void listAndCompare(const Texts& lines) {
    fs::create_directory(kRoot);
    const std::string result = makeSpelled(lines.front());
    fs::create_directories(result);
    makeFiles(result, lines);
    const int descriptor = lowestFreeDescriptor();
    Listing expected;
    const bool readable = listExpected(result, "", expected);

    const std::optional<Listing> actual = listActual(result);

    require(readable == actual.has_value(), "what cannot be read is a failure, and nothing else");
    require(!readable || expected == *actual,
            "trace files and their directories are those of the walk");
    require(descriptor == lowestFreeDescriptor(), "a listing leaves no descriptor open");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Texts lines = split(std::string_view(reinterpret_cast<const char*>(data), size), '\n');
    Texts way = split(lines.front(), '/');
    std::erase(way, "..");
    if (!usable(way)) {
        return -1;
    }
    jail.run([&] { listAndCompare(lines); });
    return 0;
}
