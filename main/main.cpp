#include "agent/Agent.h"
#include "main/InterruptThread.h"
#include "main/ProcessSetup.h"
#include "main/Startup.h"
#include "operations/Operations.h"
#include "server/HttpServer.h"

#include <cerrno>
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

namespace cagnt1 {

namespace {

// The agent of this process. A static of a function that is first called when the agent exists:
// it is destroyed before everything that the agent's threads use at the end of the program.
std::shared_ptr<IAgent>& processAgent() {
    static std::shared_ptr<IAgent> agent;
    return agent;
}

void onInterrupt(int) {
    const int interruptedErrno = errno;
    if (const std::shared_ptr<IAgent>& agent = processAgent()) {
        try {
            agent->disconnect();
        } catch (...) {
            // The server cannot be told. Nothing may leave a signal's handler, and the process
            // is as it was before the signal.
        }
    }
    errno = interruptedErrno;
}

void run(const std::string& programPath) {
    installInterruptHandler(onInterrupt);
    const std::string directory = installationDirectory(programPath);
    const AgentConfiguration configuration = readConfiguration(directory);
    const auto server = std::make_shared<HttpServer>(configuration.serverEndpoint,
                                                     certificatePath(directory, configuration));
    const auto operations = std::make_shared<operations::Operations>(
        server, configuration.buildVersion, targetDirectory(directory),
        configuration.x86TargetPackageArchiveName, configuration.x64TargetPackageArchiveName);
    processAgent() = std::make_shared<Agent>(configuration, server, operations);
    if (processAgent() == nullptr) {
        throw std::runtime_error("Failed to create an agent.");
    }
    // From here on an interrupt is let in, one from during start-up included. A handler that runs
    // when the agent has stopped is waited for.
    const InterruptThread interrupts;
    processAgent()->waitUntilStopped();
}

}  // namespace

}  // namespace cagnt1

int main(int argc, char* argv[]) {
    try {
        cagnt1::prepareProcess();
        cagnt1::run(argc > 0 ? argv[0] : "");
        return 0;
    } catch (const std::exception& error) {
        std::cerr << std::string("Internal error occured: ") + error.what();
        std::cout << "Aborting...";
        return 1;
    }
}
