#pragma once

#include "collector/ICollector.h"

#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace cagnt1::operations {

class ICollectorProcess;
struct RunningCollection;

/// The collector executable of the installed target package: its installation and its runs.
///
/// Threads: the runs (`execute`, `startCollection`, `sendCollectionCommand`, `cancel`) from any
/// threads at once. `version`, `install` and `uninstall` belong to the installing thread; no run
/// may begin before it is done.
///
/// Locks: `collectionMutex`, then `processesMutex`.
class Collector : public ICollector {
public:
    /// Creates the install directory where it is missing and looks for an installed collector.
    /// @throws std::runtime_error "Failed to create directory '...' for the target package: ..."
    /// @throws boost::filesystem::filesystem_error when the directory cannot be examined
    explicit Collector(std::string installDirectory);

    /// Does what `cancel()` does, then lets go of everything.
    ~Collector() override;

    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;

    int execute(const std::vector<std::string>& args, OperationMessenger& messenger) override;
    std::string version() override;
    bool install(const std::string& archivePath) override;
    bool uninstall() override;
    int startCollection(std::string optionFilePath, OperationMessenger& messenger) override;
    int sendCollectionCommand(std::string command, OperationMessenger& messenger) override;
    bool cancel() override;

    /// Looks for the executable at most two directories below the install directory and records
    /// it and the package's directory. What was recorded before stays when there is none.
    /// @return whether there is one
    bool locate();

private:
    bool isInstalled() const;
    RunningCollection& beginCollection(std::string optionFilePath);
    int runCollectionCommand(const std::string& command, OperationMessenger& messenger);
    void remember(const std::shared_ptr<ICollectorProcess>& process);
    void forgetEndedProcesses();
    bool terminateProcesses();

    // Written by the installing thread only, read by the runs after it is done.
    std::string installDirectory;
    std::string targetPackageDirectory;   // empty until an executable has been found
    std::string collectorExecutablePath;  // empty until an executable has been found

    // Set exactly while a collection runs. Guarded by collectionMutex, which is held on purpose
    // while a command runs and during the whole of cancel(): it keeps out a second command, a
    // second cancel and a new collection.
    std::unique_ptr<RunningCollection> collection;
    std::mutex collectionMutex;

    std::list<std::weak_ptr<ICollectorProcess>> processes;  // every run; guarded by processesMutex
    std::mutex processesMutex;                              // no other lock is taken under it
};

}  // namespace cagnt1::operations
