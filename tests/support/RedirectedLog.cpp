#include "tests/support/RedirectedLog.h"

#include <filesystem>

namespace kolvan::test {

namespace fs = std::filesystem;

void redirectLog(AgentLaunch& launch, const AgentInstallation& installation,
                 const std::string& file) {
    launch.program = installation.surroundings().write(
        "agent-with-log", "#!/bin/sh\nexec '" + launch.firstArgument + "' > '" + file + "'\n");
    fs::permissions(launch.program, fs::perms::owner_all);
}

}  // namespace kolvan::test
