#include "operations/Operations.h"

#include "basekit2/process/DescriptorBudget.h"
#include "collector/Collector.h"
#include "operations/OptionFile.h"
#include "operations/TraceFiles.h"
#include "server/IServer.h"

#include <boost/algorithm/string/split.hpp>
#include <boost/filesystem.hpp>

#include <exception>
#include <iostream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace cagnt1::operations {

namespace fs = boost::filesystem;

namespace {

using Place = basekit2::Places::Place;

std::string notEmpty(std::string value, const char* message) {
    if (value.empty()) {
        throw std::runtime_error(message);
    }
    return value;
}

std::string join(const std::string& directory, const std::string& name) {
    return (fs::path(directory) / name).string();
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    boost::algorithm::split(lines, text, [](char character) { return character == '\n'; });
    return lines;
}

// Waits for its turn where the process has no descriptors left for one more run. A package that was
// ready before may have been replaced then.
Place placeForRun() {
    Place place = basekit2::process::descriptor_budget().runs.take();
    if (!place) {
        throw std::runtime_error("Operation was cancelled");
    }
    return place;
}

}  // namespace

// The members are checked in their order.
Operations::Operations(std::shared_ptr<IServer> server, std::string buildVersion,
                       std::string targetPackageLocation, std::string x86TargetPackageArchiveName,
                       std::string x64TargetPackageArchiveName)
    : server(std::move(server)),
      buildVersion(std::move(buildVersion)),
      targetPackageLocation(
          notEmpty(std::move(targetPackageLocation), "Undefined target package location.")),
      x86TargetPackageArchiveName(
          notEmpty(std::move(x86TargetPackageArchiveName), "Undefined x86 target package name.")),
      x64TargetPackageArchiveName(
          notEmpty(std::move(x64TargetPackageArchiveName), "Undefined x64 target package name.")) {}

Operations::~Operations() {
    if (targetPackageReady.valid()) {
        targetPackageReady.wait();
    }
}

void Operations::onConnect() {
    const std::lock_guard connecting(connectMutex);
    if (targetPackageReady.valid()) {
        // Both would work in the same directory, and what is installed there is known only after.
        targetPackageReady.wait();
    }
    std::shared_ptr<ICollector> connected = std::make_shared<Collector>(targetPackageLocation);
    std::shared_future<bool> ready = std::async(
        std::launch::async, [this, connected] { return installTargetPackage(*connected); });
    // The previous pair goes after the lock: the last owner of a collector ends what it runs.
    const std::lock_guard lock(collectorMutex);
    collector.swap(connected);
    std::swap(targetPackageReady, ready);
}

void Operations::onDisconnect() {}

void Operations::onError(const std::string&) {}

int Operations::execute(std::vector<std::string> args, OperationMessenger&& messenger) {
    (void)readyCollector();  // what cannot run is told without waiting for a turn
    const Place place = placeForRun();
    return runs.begin(readyCollector())->execute(args, messenger);
}

int Operations::performCollection(std::string options, std::string traceUploadDirectory,
                                  OperationMessenger&& messenger) {
    (void)readyCollector();  // nothing is written for a collection that cannot run
    const std::string resultDirectory =
        (fs::temp_directory_path() / fs::unique_path("%%%%-%%%%-%%%%-%%%%")).string();
    const std::string optionFile = writeOptionFile(resultDirectory, splitLines(options));
    const int exitCode = runCollection(optionFile, messenger);
    uploadTraceFiles(resultDirectory, traceUploadDirectory);
    return exitCode;
}

// The place is given back before the uploads begin.
int Operations::runCollection(const std::string& optionFile, OperationMessenger& messenger) {
    const Place place = placeForRun();
    return runs.beginCollection(readyCollector())->startCollection(optionFile, messenger);
}

// Takes no place: commands come one at a time, and one of them may be what makes room for others.
int Operations::collectionCommand(std::string command, OperationMessenger&& messenger) {
    return runs.beginCommand(readyCollector())
        ->sendCollectionCommand(std::move(command), messenger);
}

// Whatever still runs is reached, whichever acceptance has started it, and whatever becomes of the
// others.
void Operations::cancelOperations() {
    // Those that wait for a place would otherwise run when all others have been ended.
    basekit2::process::descriptor_budget().runs.turnAway();
    std::exception_ptr firstFailure;
    for (const std::shared_ptr<ICollector>& busy : runs.busyCollectors()) {
        try {
            waitUntilItCanBeAsked(busy);
            (void)busy->cancel();  // a process that could not be asked to end reports by itself
        } catch (...) {
            if (!firstFailure) {
                firstFailure = std::current_exception();  // told when every one has had its turn
            }
        }
    }
    if (firstFailure) {
        std::rethrow_exception(firstFailure);
    }
}

// A collection is asked to stop through its executable. Where an earlier acceptance has started it,
// the present installation may just be replacing that file.
void Operations::waitUntilItCanBeAsked(const std::shared_ptr<ICollector>& busy) {
    const auto [current, ready] = currentInstallation();
    if (busy != current && busy == runs.collecting()) {
        ready.wait();
    }
}

Operations::Installation Operations::currentInstallation() {
    const std::lock_guard lock(collectorMutex);
    return {collector, targetPackageReady};
}

// Waits for the installation and returns the collector that it has installed.
std::shared_ptr<ICollector> Operations::readyCollector() {
    const auto [current, ready] = currentInstallation();
    if (!ready.valid() || !ready.get()) {
        throw std::runtime_error("Target package is inaccessible");
    }
    return current;
}

bool Operations::installTargetPackage(ICollector& installing) {
    if (!buildVersion.empty() && installing.version() == buildVersion) {
        return true;
    }
    if (installing.uninstall()) {
        // A machine without a 32-bit package is served all the same.
        (void)installPackage(installing, x86TargetPackageArchiveName);
    }
    return installPackage(installing, x64TargetPackageArchiveName);
}

bool Operations::installPackage(ICollector& installing, const std::string& archiveName) {
    const std::string archivePath = join(targetPackageLocation, archiveName);
    return server->downloadTargetPackage(archiveName, archivePath) &&
           installing.install(archivePath);
}

void Operations::uploadTraceFiles(const std::string& resultDirectory,
                                  const std::string& traceUploadDirectory) {
    const std::vector<TraceFile> traceFiles = findTraceFiles(resultDirectory);
    std::vector<std::future<bool>> uploads;
    uploads.reserve(traceFiles.size());
    for (const TraceFile& traceFile : traceFiles) {
        const auto upload = [this, traceFile, traceUploadDirectory] {
            return uploadTrace(traceFile.filePath, traceFile.relativeDirectory,
                               traceUploadDirectory);
        };
        try {
            uploads.push_back(std::async(std::launch::async, upload));
        } catch (const std::system_error&) {
            // No thread to be had: this one takes its turn when earlier ones are through.
            uploads.push_back(std::async(std::launch::deferred, upload));
        }
    }
    // Every one is tried, those that took no thread too, before the failure of one passes on.
    for (const std::future<bool>& upload : uploads) {
        upload.wait();
    }
    for (std::future<bool>& upload : uploads) {
        (void)upload.get();  // a failed one has been reported by its task
    }
}

bool Operations::uploadTrace(const std::string& filePath, const std::string& relativeDirectory,
                             const std::string& traceUploadDirectory) {
    const Place place = basekit2::process::descriptor_budget().uploads.take();
    const bool uploaded =
        server->uploadTraceFile(filePath, join(traceUploadDirectory, relativeDirectory));
    if (!uploaded) {
        std::cerr << "Failed to upload trace file to server: " + filePath + "\n";
    }
    return uploaded;
}

}  // namespace cagnt1::operations
