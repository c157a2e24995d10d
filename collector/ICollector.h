#pragma once

#include "operations/ICommandRunner.h"

#include <string>

namespace cagnt1::operations {

/// The data collector as the operations see it: its installation and its runs.
class ICollector : public ICommandRunner {
public:
    /// Build number that the installed collector reports, empty when there is none.
    virtual std::string version() = 0;

    /// Extracts a target package.
    /// @return whether a collector is installed afterwards
    virtual bool install(const std::string& archivePath) = 0;

    /// Removes the installed target package, if there is one.
    /// @return true
    virtual bool uninstall() = 0;

    /// Runs a collection and blocks until it has ended. One collection runs at a time.
    /// @return the collector's exit code
    /// @throws std::runtime_error "Collection is already running"
    virtual int startCollection(std::string optionFilePath, OperationMessenger& messenger) = 0;

    /// Passes `command` to the running collection and blocks until that has been done.
    /// @return the exit code of the collector process that carried the command
    /// @throws std::runtime_error "Collection is not running"
    virtual int sendCollectionCommand(std::string command, OperationMessenger& messenger) = 0;

    /// Asks the running collection to stop, waits for its end without a time limit, then asks all
    /// other collector processes to end.
    /// @return whether all of those other processes could be asked
    virtual bool cancel() = 0;
};

}  // namespace cagnt1::operations
