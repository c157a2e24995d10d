#include "companions/check/TemporaryDirectoryFindings.h"

#include "basekit2/UniqueFd.h"

#include <boost/filesystem.hpp>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace kolvan::check {

namespace fs = boost::filesystem;

namespace {

// The variable that the library takes the directory from, and its value.
std::pair<std::string, std::string> chosenBy(const Environment& environment) {
    for (const char* name : {"TMPDIR", "TMP", "TEMP", "TEMPDIR"}) {
        if (const auto variable = environment.find(name); variable != environment.end()) {
            return *variable;
        }
    }
    return {"/tmp", "/tmp"};
}

// @return 0 or the number of the error
int fill(int descriptor) {
    static constexpr std::array<char, std::size_t{64} * 1024> kBytes{};
    const ssize_t written = ::write(descriptor, kBytes.data(), kBytes.size());
    if (written < 0) {
        return errno;
    }
    if (written != static_cast<ssize_t>(kBytes.size())) {
        return ENOSPC;
    }
    // Some file systems only promise space until it is used.
    return ::fsync(descriptor) == 0 ? 0 : errno;
}

// Makes a directory with a file in it as a collection does, and removes both.
// @return 0 or the number of the error
int tryToWrite(const fs::path& directory) {
    std::string inner = (directory / "kolvan-agent-check-XXXXXX").string();
    if (::mkdtemp(inner.data()) == nullptr) {
        return errno;
    }
    std::string file = inner + "/tryXXXXXX";
    int error = 0;
    if (const basekit2::UniqueFd opened(::mkostemp(file.data(), O_CLOEXEC)); opened) {
        error = fill(opened.get());
        (void)::unlink(file.c_str());  // what stays is a small file among temporary ones
    } else {
        error = errno;
    }
    (void)::rmdir(inner.c_str());  // likewise
    return error;
}

class TemporaryDirectoryExamination {
public:
    explicit TemporaryDirectoryExamination(const Environment& environment)
        : chosen(chosenBy(environment)) {}

    Findings examine() {
        const std::string& name = chosen.second;
        boost::system::error_code error;
        const fs::path directory = fs::temp_directory_path(error);
        if (name.empty()) {
            add(Severity::Error,
                "The variable is set and empty: the agent looks no further, and every collection "
                "fails. Set it to a directory or remove it.");
        } else if (error) {
            add(Severity::Error, "\"" + name +
                                     "\" is no directory that can be looked at: every collection "
                                     "fails.");
        } else {
            examineExisting(directory);
        }
        return std::move(findings);
    }

private:
    void add(Severity severity, std::string text) {
        findings.push_back({severity, "temporary-directory", {chosen.first}, std::move(text)});
    }

    void examineExisting(const fs::path& directory) {
        const std::string& name = directory.string();
        if (directory.is_relative()) {
            add(Severity::Warning,
                "\"" + name +
                    "\" is relative: it counts from the directory in which the agent is started, "
                    "and may be another one there.");
        }
        if (name.find("data") != std::string::npos) {
            add(Severity::Warning,
                "\"" + name +
                    "\" has \"data\" in its path: by that word the agent knows traces, so that "
                    "every file of a collection, its options too, is uploaded.");
        }
        if (const int error = tryToWrite(directory); error == ENOSPC || error == EDQUOT) {
            add(Severity::Error, "\"" + name + "\" is full: every collection fails.");
            return;
        } else if (error != 0) {
            add(Severity::Error, "\"" + name +
                                     "\" cannot be written to by this user, and every collection "
                                     "fails: " +
                                     std::generic_category().message(error) + ".");
            return;
        }
        examineFileSystem(name);
    }

    void examineFileSystem(const std::string& name) {
        struct statvfs system {};
        if (::statvfs(name.c_str(), &system) != 0) {
            return;  // it has just been written to
        }
        constexpr std::uint64_t kMebibyte = std::uint64_t{1024} * 1024;
        constexpr std::uint64_t kLittle = 100;
        const std::uint64_t free = system.f_bavail * system.f_frsize / kMebibyte;
        if (free < kLittle) {
            add(Severity::Warning, "\"" + name + "\" has room for " + std::to_string(free) +
                                       " MB only; a collection writes its traces there, and they "
                                       "are left there.");
        }
        if ((system.f_flag & ST_NOEXEC) != 0) {
            add(Severity::Warning, "\"" + name +
                                       "\" lies on a file system on which no program may be "
                                       "started (noexec): a collector that keeps a helper with "
                                       "its results cannot run it.");
        }
    }

    const std::pair<std::string, std::string> chosen;
    Findings findings;
};

}  // namespace

Findings examineTemporaryDirectory(const Environment& environment) {
    return TemporaryDirectoryExamination(environment).examine();
}

}  // namespace kolvan::check
