#include "operations/OptionFile.h"

#include <boost/filesystem.hpp>

#include <cstddef>
#include <fstream>
#include <stdexcept>

namespace cagnt1::operations {

namespace fs = boost::filesystem;

namespace {

fs::path createConfigDirectory(const fs::path& resultDirectory) {
    fs::path configDirectory = resultDirectory / "config";
    if (!fs::create_directory(resultDirectory) || !fs::create_directory(configDirectory)) {
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
