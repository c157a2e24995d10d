#include "companions/check/DirectoryFindings.h"

#include "main/Startup.h"

#include <cerrno>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kolvan::check {

namespace {

// Why this user cannot make entries in the directory; empty when it can.
std::string obstacleToWriting(const std::string& directory) {
    return ::faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) == 0
               ? std::string()
               : std::generic_category().message(errno);
}

}  // namespace

Findings examineDirectory(const std::string& directory) {
    const std::string target = cagnt1::targetDirectory(directory);
    struct stat status {};
    if (::stat(target.c_str(), &status) == 0) {
        if (!S_ISDIR(status.st_mode)) {
            return {{Severity::Error,
                     "target",
                     {target},
                     "This is no directory; the agent installs its collector in it."}};
        }
        if (const std::string obstacle = obstacleToWriting(target); !obstacle.empty()) {
            return {{Severity::Error,
                     "target",
                     {target},
                     "This user cannot write to the directory in which the agent installs its "
                     "collector: " +
                         obstacle + "."}};
        }
        return {};
    }
    if (::lstat(target.c_str(), &status) == 0) {
        return {{Severity::Error,
                 "target",
                 {target},
                 "This link leads nowhere; the agent installs its collector in this directory."}};
    }
    if (const std::string obstacle = obstacleToWriting(directory); !obstacle.empty()) {
        return {{Severity::Error,
                 "target",
                 {target},
                 "The directory in which the agent installs its collector is missing, and this "
                 "user cannot make it in " +
                     directory + ": " + obstacle + "."}};
    }
    return {};
}

Findings examineMode(const std::string& configurationFile) {
    Findings findings;
    struct stat status {};
    if (::stat(configurationFile.c_str(), &status) != 0) {
        return findings;  // whoever reads the file says why that is impossible
    }
    if ((status.st_mode & S_IROTH) != 0) {
        findings.push_back({Severity::Warning,
                            "mode",
                            {configurationFile},
                            "Every user of this machine can read the access token: the file is "
                            "readable by others. Change that with \"chmod o= FILE\"."});
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        findings.push_back({Severity::Warning,
                            "mode",
                            {configurationFile},
                            "The file can be changed by others than its owner, and whoever "
                            "changes it decides which server commands the agent."});
    }
    return findings;
}

}  // namespace kolvan::check
