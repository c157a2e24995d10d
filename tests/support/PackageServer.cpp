#include "tests/support/PackageServer.h"

#include "tests/support/TemporaryDirectory.h"
#include "tests/support/ThreadStates.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <unistd.h>

namespace kolvan::test {

namespace {

constexpr std::chrono::seconds kPatience{60};

// Counts one call for as long as it runs, whichever way it ends.
class CallInProgress {
public:
    CallInProgress(std::unique_lock<std::mutex>& lock, std::condition_variable& changed,
                   std::size_t& count)
        : lock(lock), changed(changed), count(count) {
        ++count;
        changed.notify_all();
    }
    ~CallInProgress() {
        if (!lock.owns_lock()) {
            lock.lock();
        }
        --count;
        changed.notify_all();
    }
    CallInProgress(const CallInProgress&) = delete;
    CallInProgress& operator=(const CallInProgress&) = delete;

private:
    std::unique_lock<std::mutex>& lock;
    std::condition_variable& changed;
    std::size_t& count;
};

void writeDownload(const std::string& path, const std::string& content) {
    std::ofstream stream(path, std::ios::binary | std::ios::trunc);
    stream << content;
    stream.close();
    if (!stream) {
        throw std::runtime_error("cannot write " + path);
    }
}

}  // namespace

void PackageServer::waitUntil(Lock& lock, const std::function<bool()>& condition,
                              const std::string& what) {
    if (!changed.wait_for(lock, kPatience, condition)) {
        throw std::runtime_error("waited in vain for " + what);
    }
}

void PackageServer::offer(const std::string& archiveName, const std::string& content) {
    const Lock lock(mutex);
    packages[archiveName] = content;
    brokenDownloads.erase(archiveName);
}

void PackageServer::breakDownload(const std::string& archiveName, const std::string& text) {
    const Lock lock(mutex);
    brokenDownloads[archiveName] = text;
}

void PackageServer::refuseUpload(const std::string& fileName) {
    const Lock lock(mutex);
    refusedUploads.insert(fileName);
}

void PackageServer::breakUpload(const std::string& fileName, const std::string& text) {
    const Lock lock(mutex);
    brokenUploads[fileName] = text;
}

void PackageServer::holdDownloads() {
    const Lock lock(mutex);
    downloadsHeld = true;
}

void PackageServer::releaseDownloads() {
    const Lock lock(mutex);
    downloadsHeld = false;
    changed.notify_all();
}

void PackageServer::holdUploads() {
    const Lock lock(mutex);
    uploadsHeld = true;
}

void PackageServer::releaseUploads() {
    const Lock lock(mutex);
    uploadsHeld = false;
    changed.notify_all();
}

void PackageServer::releaseUpload(const std::string& fileName) {
    const Lock lock(mutex);
    releasedUploads.insert(fileName);
    changed.notify_all();
}

void PackageServer::waitForEndOfUpload(const std::string& fileName) {
    pid_t thread = 0;
    {
        const Lock lock(mutex);
        thread = uploadThreads.at(fileName);
    }
    waitUntilThreadEnds(thread);
}

void PackageServer::waitForDownloads(std::size_t begun) {
    Lock lock(mutex);
    waitUntil(
        lock, [&] { return downloadsBegun.size() >= begun; }, "a download");
}

void PackageServer::waitForUploads(std::size_t begun) {
    Lock lock(mutex);
    waitUntil(
        lock, [&] { return uploadsBegun.size() >= begun; }, "an upload");
}

std::vector<PackageServer::Download> PackageServer::downloads() const {
    const Lock lock(mutex);
    return downloadsBegun;
}

std::vector<PackageServer::Upload> PackageServer::uploads() const {
    const Lock lock(mutex);
    std::vector<Upload> sorted = uploadsBegun;
    std::sort(sorted.begin(), sorted.end());
    return sorted;
}

std::size_t PackageServer::callsInProgress() const {
    const Lock lock(mutex);
    return downloadsInProgress + uploadsInProgress;
}

std::size_t PackageServer::mostDownloadsAtOnce() const {
    const Lock lock(mutex);
    return peakOfDownloads;
}

std::string PackageServer::sendMessages(const std::string& /*requestJson*/) {
    throw std::logic_error("no messages here");
}

bool PackageServer::downloadTargetPackage(const std::string& archiveName,
                                          const std::string& destinationPath) {
    Lock lock(mutex);
    downloadsBegun.push_back({archiveName, destinationPath});
    const CallInProgress call(lock, changed, downloadsInProgress);
    peakOfDownloads = std::max(peakOfDownloads, downloadsInProgress);
    waitUntil(
        lock, [this] { return !downloadsHeld; }, "the release of a download");

    const auto broken = brokenDownloads.find(archiveName);
    if (broken != brokenDownloads.end()) {
        throw std::runtime_error(broken->second);
    }
    const auto package = packages.find(archiveName);
    if (package == packages.end()) {
        return false;
    }
    const std::string content = package->second;
    lock.unlock();
    writeDownload(destinationPath, content);
    return true;
}

bool PackageServer::uploadTraceFile(const std::string& localFilePath,
                                    const std::string& remoteDirectory) {
    const std::string content = readFile(localFilePath);
    const std::string fileName = std::filesystem::path(localFilePath).filename();
    Lock lock(mutex);
    uploadsBegun.push_back({localFilePath, remoteDirectory, content});
    uploadThreads[fileName] = ::gettid();
    const CallInProgress call(lock, changed, uploadsInProgress);
    waitUntil(
        lock, [&] { return !uploadsHeld || releasedUploads.contains(fileName); },
        "the release of an upload");

    const auto broken = brokenUploads.find(fileName);
    if (broken != brokenUploads.end()) {
        throw std::runtime_error(broken->second);
    }
    return !refusedUploads.contains(fileName);
}

}  // namespace kolvan::test
