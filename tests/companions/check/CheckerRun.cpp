#include "tests/companions/check/CheckerRun.h"

namespace kolvan::test {

AgentLaunch checkerLaunch(const AgentInstallation& installation,
                          const std::vector<std::string>& arguments) {
    AgentLaunch launch(installation);
    launch.program = KOLVAN_CHECK_PATH;
    launch.firstArgument = launch.program;
    launch.moreArguments = arguments;
    return launch;
}

void startThrough(AgentLaunch& launch, const std::vector<std::string>& tool) {
    std::vector<std::string> words(tool.begin() + 1, tool.end());
    words.push_back(launch.program);
    words.insert(words.end(), launch.moreArguments.begin(), launch.moreArguments.end());
    launch.program = tool.front();
    launch.firstArgument = tool.front();
    launch.moreArguments = std::move(words);
}

CheckerAnswer runChecker(const AgentLaunch& launch) {
    AgentProcess checker(launch);
    const std::string ending = checker.waitForEnd();
    return {ending, checker.output(), checker.errors()};
}

std::string replaced(std::string text, const std::string& part, const std::string& by) {
    for (std::size_t at = text.find(part); at != std::string::npos;
         at = text.find(part, at + by.size())) {
        text.replace(at, part.size(), by);
    }
    return text;
}

}  // namespace kolvan::test
