#include "main/Startup.h"

#include "server/AgentConfigurationJson.h"

#include <boost/filesystem.hpp>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace cagnt1 {

namespace fs = boost::filesystem;

namespace {

const char* const kConfigurationFileName = "kolvan-agent.config.json";

}  // namespace

std::string installationDirectory(const std::string& programPath) {
    return fs::system_complete(programPath).parent_path().string();
}

std::string configurationPath(const std::string& directory) {
    return (fs::path(directory) / kConfigurationFileName).string();
}

std::string readConfigurationText(const std::string& path) {
    const std::ifstream file(path);
    if (!file) {
        // The name only: operators know where they put the agent, and logs travel.
        throw std::runtime_error(std::string("Failed to open ") + kConfigurationFileName);
    }
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

AgentConfiguration checkedConfiguration(const std::string& text) {
    AgentConfiguration configuration = parseConfiguration(text);
    if (configuration.accessToken.empty()) {
        throw std::runtime_error("Access token is empty");
    }
    if (configuration.serverEndpoint.empty()) {
        throw std::runtime_error("Server endpoint is empty");
    }
    return configuration;
}

AgentConfiguration readConfiguration(const std::string& directory) {
    return checkedConfiguration(readConfigurationText(configurationPath(directory)));
}

std::string certificatePath(const std::string& directory, const AgentConfiguration& configuration) {
    if (configuration.serverCertificateName.empty()) {
        return {};
    }
    return (fs::path(directory) / configuration.serverCertificateName).string();
}

std::string targetDirectory(const std::string& directory) {
    return (fs::path(directory) / "target").string();
}

}  // namespace cagnt1
