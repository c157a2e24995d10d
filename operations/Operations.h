#pragma once

#include "agent/IAgent.h"
#include "operations/CollectorRuns.h"

#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace cagnt1 {
class IServer;
}

namespace cagnt1::operations {

class ICollector;

/// The work that the agent does for its server: installs the target package when the agent is
/// connected, runs the collector once that has succeeded, uploads what a collection wrote.
///
/// Threads: every member from any threads at once. The collector operations block until the
/// installation has ended.
class Operations : public IAgent::IOperations {
public:
    /// @param server where packages come from and trace files go to
    /// @param buildVersion collector build that need not be installed again; empty: always install
    /// @param targetPackageLocation directory of the target package
    /// @throws std::runtime_error "Undefined target package location.", "Undefined x86 target
    ///         package name." or "Undefined x64 target package name." when that one is empty
    Operations(std::shared_ptr<IServer> server, std::string buildVersion,
               std::string targetPackageLocation, std::string x86TargetPackageArchiveName,
               std::string x64TargetPackageArchiveName);

    /// Waits for a running installation.
    ~Operations() override;

    Operations(const Operations&) = delete;
    Operations& operator=(const Operations&) = delete;

    /// Starts the installation of the target package, after the end of an earlier one.
    void onConnect() override;
    void onDisconnect() override;
    void onError(const std::string& message) override;
    int execute(std::vector<std::string> args, OperationMessenger&& messenger) override;
    int performCollection(std::string options, std::string traceUploadDirectory,
                          OperationMessenger&& messenger) override;
    int collectionCommand(std::string command, OperationMessenger&& messenger) override;
    void cancelOperations() override;

private:
    struct Installation {
        std::shared_ptr<ICollector> collector;  // empty until the first acceptance
        std::shared_future<bool> ready;         // not valid until then
    };

    Installation currentInstallation();
    std::shared_ptr<ICollector> readyCollector();
    bool installTargetPackage(ICollector& installing);
    bool installPackage(ICollector& installing, const std::string& archiveName);
    int runCollection(const std::string& optionFile, OperationMessenger& messenger);
    void waitUntilItCanBeAsked(const std::shared_ptr<ICollector>& busy);
    void uploadTraceFiles(const std::string& resultDirectory,
                          const std::string& traceUploadDirectory);
    bool uploadTrace(const std::string& filePath, const std::string& relativeDirectory,
                     const std::string& traceUploadDirectory);

    std::shared_ptr<ICollector> collector;  // guarded by collectorMutex
    const std::shared_ptr<IServer> server;
    std::shared_future<bool> targetPackageReady;  // guarded by collectorMutex
    const std::string buildVersion;
    const std::string targetPackageLocation;
    const std::string x86TargetPackageArchiveName;
    const std::string x64TargetPackageArchiveName;

    // Held by onConnect() throughout: one installation at a time, and nobody else writes collector
    // and targetPackageReady.
    std::mutex connectMutex;
    std::mutex collectorMutex;  // guards collector and targetPackageReady; taken last, held briefly

    CollectorRuns runs;  // what runs on the collectors of all acceptances
};

}  // namespace cagnt1::operations
