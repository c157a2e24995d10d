#include "companions/check/AgentBuild.h"
#include "companions/check/Alive.h"
#include "companions/check/ConfigurationFindings.h"
#include "companions/check/ConnectionFindings.h"
#include "companions/check/DirectoryFindings.h"
#include "companions/check/Endpoint.h"
#include "companions/check/Environment.h"
#include "companions/check/LibraryFindings.h"
#include "companions/check/LimitFindings.h"
#include "companions/check/Options.h"
#include "companions/check/ProxyFindings.h"
#include "companions/check/Report.h"
#include "companions/check/SettingsFindings.h"
#include "companions/check/TemporaryDirectoryFindings.h"
#include "main/Startup.h"

#include <chrono>
#include <exception>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

namespace kolvan::check {

namespace {

namespace fs = std::filesystem;

constexpr int kCannotLook = 2;
constexpr char kInstalledDirectory[] = "/opt/kolvan-agent";

void append(Findings& findings, Findings more) {
    findings.insert(findings.end(), std::make_move_iterator(more.begin()),
                    std::make_move_iterator(more.end()));
}

// An agent that was unpacked somewhere lies beside this program, or above its directory.
std::string installedDirectory() {
    std::error_code error;
    const fs::path own = fs::read_symlink("/proc/self/exe", error).parent_path();
    // A package has in "bin" what is called by its name; what is named like the agent there is no
    // agent and starts the one above.
    for (const fs::path& directory : {own.filename() == "bin" ? own.parent_path() : own, own}) {
        if (fs::is_regular_file(directory / "kolvan-agent", error)) {
            return directory.string();
        }
    }
    return kInstalledDirectory;
}

struct Installation {
    std::string directory;
    std::string configurationFile;
};

Installation installationOf(const Options& options) {
    if (!options.configurationFile.empty()) {
        const fs::path directory = fs::path(options.configurationFile).parent_path();
        return {directory.empty() ? "." : directory.string(), options.configurationFile};
    }
    const std::string directory =
        options.directory.empty() ? installedDirectory() : options.directory;
    return {directory, cagnt1::configurationPath(directory)};
}

Findings examine(const Installation& installation, const Options& options) {
    const Environment environment = ownEnvironment();
    ExaminedConfiguration examined = examineConfiguration(installation.configurationFile);
    Findings findings = std::move(examined.findings);
    append(findings, examineMode(installation.configurationFile));
    if (examined.configuration) {
        append(findings, examineSettings(*examined.configuration, installation.directory));
    }
    append(findings, examineDirectory(installation.directory));
    append(findings, examineTemporaryDirectory(environment));
    append(findings, examineLimits());
    append(findings, examineLibraries());
    if (examined.configuration) {
        try {
            append(findings, examineProxy(parseEndpoint(examined.configuration->serverEndpoint),
                                          environment));
        } catch (const std::invalid_argument&) {
            // No address: that was found among the settings.
        }
        if (options.connect) {
            constexpr std::chrono::seconds kUsualPatience{15};
            append(findings, examineConnection(*examined.configuration, environment,
                                               options.patience.value_or(kUsualPatience)));
        }
    }
    return findings;
}

int tellWhetherAlive(const Options& options) {
    constexpr std::chrono::seconds kUsualPatience{10};
    const WatchedProcess agent(*options.alive);
    const std::string server = serverOf(agent);
    const AliveAnswer answer = watchForLife(agent, options.patience.value_or(kUsualPatience));
    std::cout << (options.json ? jsonReport(*options.alive, server, answer)
                               : plainReport(*options.alive, server, answer))
              << std::flush;
    return !std::cout ? kCannotLook : answer.alive ? 0 : 1;
}

int run(int argc, const char* const* argv) {
    const Options options = readOptions(argc, argv);
    if (options.help) {
        std::cout << *options.help;
        return 0;
    }
    if (options.alive) {
        return tellWhetherAlive(options);
    }
    const Installation installation = installationOf(options);
    if (options.version) {
        std::cout << "kolvan-agent-check " KOLVAN_VERSION "\nkolvan-agent in " +
                         installation.directory + ": " +
                         buildOf(fs::path(installation.directory) / "kolvan-agent") + "\n";
        return 0;
    }
    if (std::error_code error; !fs::is_directory(installation.directory, error)) {
        throw std::runtime_error(installation.directory + " is no directory");
    }
    const Findings findings = examine(installation, options);
    std::cout << (options.json ? jsonReport(findings) : plainReport(findings)) << std::flush;
    return std::cout ? exitCodeFor(findings) : kCannotLook;
}

}  // namespace

}  // namespace kolvan::check

int main(int argc, char* argv[]) {
    try {
        return kolvan::check::run(argc, argv);
    } catch (const std::invalid_argument& error) {
        std::cerr << "kolvan-agent-check: " << error.what() << "\nTry --help.\n";
    } catch (const std::exception& error) {
        std::cerr << "kolvan-agent-check: " << error.what() << "\n";
    }
    return kolvan::check::kCannotLook;
}
