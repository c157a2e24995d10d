#include "collector/Collector.h"

#include "basekit2/process/IProcess.h"
#include "collector/CollectorProcess.h"
#include "collector/RunningCollection.h"

#include <boost/filesystem/path.hpp>

#include <exception>
#include <future>
#include <stdexcept>
#include <utility>

namespace cagnt1::operations {

Collector::~Collector() {
    try {
        (void)Collector::cancel();
    } catch (const std::exception&) {
        // Nobody is left who could be told.
    }
}

int Collector::execute(const std::vector<std::string>& args, OperationMessenger& messenger) {
    const auto process = std::make_shared<CollectorProcess>(
        collectorExecutablePath, targetPackageDirectory, args, messenger);
    remember(process);
    (void)process->start();  // wait() tells a process that was never started from others
    const int exitCode = process->wait();
    forgetEndedProcesses();
    return exitCode;
}

int Collector::startCollection(std::string optionFilePath, OperationMessenger& messenger) {
    RunningCollection& running = beginCollection(std::move(optionFilePath));
    int exitCode = 0;
    try {
        exitCode = execute({"--option-file", running.optionFilePath}, messenger);
    } catch (...) {
        // Deliberate: the record stays. Whether the collector still runs is not known, and a
        // second one must not be started beside it. But nobody shall wait for its end for ever.
        running.finished.set_exception(std::current_exception());
        throw;
    }
    // Before the mutex is taken again, because cancel() holds it while it waits for this.
    running.finished.set_value();
    const std::lock_guard lock(collectionMutex);
    collection.reset();
    return exitCode;
}

RunningCollection& Collector::beginCollection(std::string optionFilePath) {
    const std::lock_guard lock(collectionMutex);
    if (collection != nullptr) {
        throw std::runtime_error("Collection is already running");
    }
    const boost::filesystem::path optionFile(optionFilePath);
    collection = std::make_unique<RunningCollection>(
        RunningCollection{optionFile.parent_path().parent_path().string(),
                          std::move(optionFilePath), this, std::promise<void>()});
    return *collection;
}

int Collector::sendCollectionCommand(std::string command, OperationMessenger& messenger) {
    const std::lock_guard lock(collectionMutex);
    if (collection == nullptr) {
        throw std::runtime_error("Collection is not running");
    }
    return runCollectionCommand(command, messenger);
}

// With collectionMutex held and a collection set.
int Collector::runCollectionCommand(const std::string& command, OperationMessenger& messenger) {
    return collection->collector->execute({"-r", collection->resultDirectory, "--command", command},
                                          messenger);
}

bool Collector::cancel() {
    const std::lock_guard lock(collectionMutex);
    if (collection != nullptr) {
        OperationMessenger silent;
        if (runCollectionCommand("cancel", silent) == basekit2::process::IProcess::kNotStarted) {
            // The collection cannot be asked: the executable is gone, or the system has nothing
            // left to start it with.
            (void)terminateProcesses();
        }
        collection->finished.get_future().wait();
    }
    return terminateProcesses();
}

void Collector::remember(const std::shared_ptr<ICollectorProcess>& process) {
    const std::lock_guard lock(processesMutex);
    processes.push_back(process);
}

void Collector::forgetEndedProcesses() {
    const std::lock_guard lock(processesMutex);
    processes.remove_if([](const auto& process) { return process.expired(); });
}

bool Collector::terminateProcesses() {
    std::vector<std::shared_ptr<ICollectorProcess>> running;
    {
        const std::lock_guard lock(processesMutex);
        for (const auto& process : processes) {
            if (auto alive = process.lock()) {
                running.push_back(std::move(alive));
            }
        }
    }
    bool allAsked = true;
    for (const auto& process : running) {
        allAsked = process->terminate() && allAsked;
    }
    return allAsked;
}

}  // namespace cagnt1::operations
