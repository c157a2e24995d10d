#include "operations/OptionFile.h"

#include <boost/filesystem.hpp>
#include <boost/system/error_code.hpp>

#include <cerrno>
#include <cstddef>
#include <fstream>
#include <stdexcept>

#include <sys/stat.h>

namespace cagnt1::operations {

namespace fs = boost::filesystem;

namespace {

// Creates a directory for the agent's user alone. The library creates one for everybody and can
// only take permissions away afterwards, when somebody may be in it already. Otherwise as
// fs::create_directory: false when there is a directory of that name, fs::filesystem_error when it
// cannot be created.
bool createPrivateDirectory(const fs::path& directory) {
    if (::mkdir(directory.c_str(), S_IRWXU) == 0) {
        return true;
    }
    const boost::system::error_code reason(errno, boost::system::system_category());
    boost::system::error_code unknown;
    if (fs::is_directory(directory, unknown)) {
        return false;
    }
    throw fs::filesystem_error("boost::filesystem::create_directory", directory, reason);
}

fs::path createConfigDirectory(const fs::path& resultDirectory) {
    fs::path configDirectory = resultDirectory / "config";
    if (!createPrivateDirectory(resultDirectory) || !createPrivateDirectory(configDirectory)) {
        throw std::runtime_error("Failed to create result directory: " + resultDirectory.string());
    }
    return configDirectory;
}

}  // namespace

std::string writeOptionFile(const std::string& resultDirectory,
                            const std::vector<std::string>& lines) {
    std::string optionFile =
        (createConfigDirectory(resultDirectory) / "trcap_remote.options").string();
    std::ofstream stream(optionFile, std::ios::trunc);
    if (!stream) {
        throw std::runtime_error("Failed to open options file: " + optionFile);
    }
    for (std::size_t index = 0; index < lines.size(); ++index) {
        stream << lines[index] << '\n';
        if (lines[index] == "-r") {
            // The next line names a result directory on the server's side: ours takes its place.
            stream << resultDirectory << '\n';
            ++index;
        }
    }
    stream.close();
    if (!stream) {
        // The collector must not run with half of its options.
        throw std::runtime_error("Failed to write options file: " + optionFile);
    }
    return optionFile;
}

}  // namespace cagnt1::operations
