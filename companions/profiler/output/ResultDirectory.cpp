#include "companions/profiler/output/ResultDirectory.h"

#include "companions/profiler/base/ErrorText.h"
#include "companions/profiler/base/ExitCode.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace kolvan::profiler {

namespace {

/// @return false when there is something in its place already
bool create(const std::string& path) {
    const bool created = ::mkdir(path.c_str(), 0777) == 0;
    if (!created && errno != EEXIST) {
        throw Failure(ExitCode::NotWritten,
                      "cannot create directory '" + path + "': " + errorText(errno));
    }
    return created;
}

bool isEmptyDirectory(const std::string& path) {
    std::error_code error;
    const std::filesystem::directory_iterator entries(path, error);
    return !error && entries == std::filesystem::directory_iterator();
}

/// Creates the first of `path`/data.0, data.1 and so on that holds no results yet. A collection
/// that failed before it began has left an empty one.
std::string createData(const std::string& path) {
    for (unsigned number = 0;; ++number) {
        std::string data = path + "/data." + std::to_string(number);
        if (create(data) || isEmptyDirectory(data)) {
            return data;
        }
    }
}

}  // namespace

ResultDirectory::ResultDirectory(const std::string& path) {
    (void)create(path);  // whether it can be opened shows what was in its place
    directory = FileDescriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory) {
        throw Failure(ExitCode::NotWritten,
                      "cannot open directory '" + path + "': " + errorText(errno));
    }
    // The lock goes with the descriptor, so that a killed collection leaves none behind. A file
    // system without locks is no reason not to measure.
    if (::flock(directory.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        throw Failure(ExitCode::Failed, "a collection is already running in '" + path + "'");
    }
    dataPath = createData(path);
}

}  // namespace kolvan::profiler
