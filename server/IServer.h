#pragma once

#include <string>

namespace cagnt1 {

/// The agent's only road to its server.
///
/// Threads: every member may be called from several threads at once. Each call blocks until the
/// server has answered or the connection has failed, without a time limit.
class IServer {
public:
    virtual ~IServer() = default;

    /// Posts one request text.
    /// @return the server's whole answer, whatever its HTTP status
    /// @throws std::runtime_error with the transport's description when no answer came
    virtual std::string sendMessages(const std::string& requestJson) = 0;

    /// Downloads a target package archive into the file `destinationPath`, which is created or
    /// truncated. Whatever the server sends is written there, even an error page.
    /// @return false when the download could not be begun
    /// @throws std::runtime_error with the transport's description when it broke off
    virtual bool downloadTargetPackage(const std::string& archiveName,
                                       const std::string& destinationPath) = 0;

    /// Uploads the file `localFilePath` into the server's directory `remoteDirectory`.
    /// @return false when the upload could not be begun
    /// @throws std::runtime_error with the transport's description when it broke off
    virtual bool uploadTraceFile(const std::string& localFilePath,
                                 const std::string& remoteDirectory) = 0;
};

}  // namespace cagnt1
