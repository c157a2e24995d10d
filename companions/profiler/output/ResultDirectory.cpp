#include "companions/profiler/output/ResultDirectory.h"

#include "companions/profiler/base/ExitCode.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace kolvan::profiler {

namespace {

void create(const std::string& path) {
    if (::mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) {
        throw Failure(ExitCode::NotWritten,
                      "cannot create directory '" + path + "': " + std::strerror(errno));
    }
}

}  // namespace

ResultDirectory::ResultDirectory(const std::string& path) : dataPath(path + "/data.0") {
    create(path);
    directory = FileDescriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory) {
        throw Failure(ExitCode::NotWritten,
                      "cannot open directory '" + path + "': " + std::strerror(errno));
    }
    // The lock goes with the descriptor, so that a killed collection leaves none behind. A file
    // system without locks is no reason not to measure.
    if (::flock(directory.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        throw Failure(ExitCode::Failed, "a collection is already running in '" + path + "'");
    }
    create(dataPath);
}

}  // namespace kolvan::profiler
