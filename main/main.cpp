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

// The agent of this process. Statics are destroyed in the reverse order of their creation. This one
// is created only when the agent is, so it goes before the statics that the agent's threads use.
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
            // No exception may leave a signal handler. The server could not be told, and the
            // process goes on as it did before the signal.
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
    // Deliberate: std::make_shared throws and never returns null. The check stays because the wait
    // and the handler below rely on the pointer, whatever the agent may one day be made by.
    if (processAgent() == nullptr) {
        throw std::runtime_error("Failed to create an agent.");
    }
    // From here on interrupts are let in; one that came during the start is delivered now. The
    // destructor waits for a handler that is still running when the agent has stopped.
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
        // Deliberate: "occured" is misspelt and neither text ends its line. Whoever supervises the
        // agent looks for these texts as they are.
        std::cerr << std::string("Internal error occured: ") + error.what();
        std::cout << "Aborting...";
        return 1;
    }
}
