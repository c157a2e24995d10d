#include "collector/Collector.h"
#include "collector/RunningCollection.h"
#include "operations/ExtractArchive.h"
#include "operations/FindFile.h"
#include "operations/RunCommand.h"

#include <boost/filesystem.hpp>
#include <boost/regex.hpp>

#include <iostream>
#include <stdexcept>
#include <string>
#include <utility>

namespace cagnt1::operations {

namespace fs = boost::filesystem;

namespace {

const std::string kExecutableName = "kolvan-trcap";
constexpr int kMaxDepth = 2;

// "." matches line breaks too, so an output of several lines is matched as one text. The leading
// ".*" takes as much as it can, so the last build number of the output counts.
const boost::regex kVersionPattern(R"(.*build\s+(\d+).*)");

// Creates the directory where it is missing.
std::string existingDirectory(std::string directory) {
    if (!fs::exists(directory)) {
        boost::system::error_code error;
        fs::create_directories(directory, error);
        if (error) {
            throw std::runtime_error("Failed to create directory '" + directory +
                                     "' for the target package: " + error.message());
        }
    }
    return directory;
}

}  // namespace

Collector::Collector(std::string installDirectory)
    : installDirectory(existingDirectory(std::move(installDirectory))) {
    (void)locate();  // on a new machine there is none yet
}

bool Collector::locate() {
    const std::string found = findFile(installDirectory, kExecutableName, kMaxDepth);
    if (found.empty()) {
        std::cerr << kExecutableName + " is not found in " + installDirectory + "\n";
        return false;
    }
    collectorExecutablePath = found;
    targetPackageDirectory = fs::path(found).parent_path().parent_path().string();
    std::cout << kExecutableName + " is found at " + collectorExecutablePath + "\n";
    std::cout << "Target package directory: " + targetPackageDirectory + "\n";
    return true;
}

bool Collector::isInstalled() const {
    return !collectorExecutablePath.empty() && fs::exists(collectorExecutablePath);
}

std::string Collector::version() {
    if (!isInstalled()) {
        return {};
    }
    const std::string output = runCommand(collectorExecutablePath, {"--version"});
    boost::smatch match;
    return boost::regex_match(output, match, kVersionPattern) ? match[1].str() : std::string();
}

bool Collector::install(const std::string& archivePath) {
    std::cout << "Extracting " + archivePath + " to " + installDirectory + "\n";
    const bool extracted = extractArchive(archivePath, installDirectory);
    (void)locate();  // where none is found now, one that was found earlier still counts
    return extracted && isInstalled();
}

bool Collector::uninstall() {
    if (isInstalled()) {
        std::cout << "Uninstalling existing target package at " + targetPackageDirectory + "\n";
        fs::remove_all(targetPackageDirectory);
    }
    return true;
}

}  // namespace cagnt1::operations
