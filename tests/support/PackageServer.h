#pragma once

#include "server/IServer.h"

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolvan::test {

/// A server that hands out target packages by name and takes trace files, without a network. It
/// keeps what it was asked for and can hold its answers back.
///
/// Threads: every member from any threads at once.
class PackageServer : public cagnt1::IServer {
public:
    struct Download {
        std::string archiveName;
        std::string destinationPath;

        bool operator==(const Download&) const = default;
    };
    struct Upload {
        std::string localFilePath;
        std::string remoteDirectory;
        std::string content;  ///< of the file at the moment of the upload

        auto operator<=>(const Upload&) const = default;
    };

    /// Makes an archive downloadable. One that is not offered is refused with `false`.
    void offer(const std::string& archiveName, const std::string& content);

    /// Makes the download of an archive end with an exception.
    void breakDownload(const std::string& archiveName, const std::string& text);

    /// Makes the upload of the files with this name end with `false`.
    void refuseUpload(const std::string& fileName);

    /// Makes the upload of the files with this name end with an exception.
    void breakUpload(const std::string& fileName, const std::string& text);

    /// Keeps every download from ending until `releaseDownloads()`.
    void holdDownloads();
    void releaseDownloads();

    /// Keeps every upload from ending until `releaseUploads()`.
    void holdUploads();
    void releaseUploads();

    /// Lets the upload of the file with this name end although uploads are held.
    void releaseUpload(const std::string& fileName);

    /// Blocks until the thread of that upload, which has begun, is gone.
    /// @throws std::runtime_error when that takes unreasonably long
    void waitForEndOfUpload(const std::string& fileName);

    /// Blocks until that many downloads, or uploads, have begun since the start.
    /// @throws std::runtime_error when that takes unreasonably long
    void waitForDownloads(std::size_t begun);
    void waitForUploads(std::size_t begun);

    /// Every download asked for, in the order of their beginnings.
    std::vector<Download> downloads() const;

    /// Every upload asked for, sorted.
    std::vector<Upload> uploads() const;

    /// Number of downloads and uploads that have begun and not ended.
    std::size_t callsInProgress() const;

    /// The largest number of downloads that were in progress at the same time.
    std::size_t mostDownloadsAtOnce() const;

    /// Not part of what this server is for.
    /// @throws std::logic_error always
    std::string sendMessages(const std::string& requestJson) override;
    bool downloadTargetPackage(const std::string& archiveName,
                               const std::string& destinationPath) override;
    bool uploadTraceFile(const std::string& localFilePath,
                         const std::string& remoteDirectory) override;

private:
    using Lock = std::unique_lock<std::mutex>;

    void waitUntil(Lock& lock, const std::function<bool()>& condition, const std::string& what);

    mutable std::mutex mutex;         // guards all other members
    std::condition_variable changed;  // notified at every change
    std::map<std::string, std::string> packages;
    std::map<std::string, std::string> brokenDownloads;
    std::set<std::string> refusedUploads;
    std::map<std::string, std::string> brokenUploads;
    bool downloadsHeld = false;
    bool uploadsHeld = false;
    std::set<std::string> releasedUploads;
    std::map<std::string, pid_t> uploadThreads;
    std::vector<Download> downloadsBegun;
    std::vector<Upload> uploadsBegun;
    std::size_t downloadsInProgress = 0;
    std::size_t uploadsInProgress = 0;
    std::size_t peakOfDownloads = 0;
};

}  // namespace kolvan::test
