#pragma once

#include "server/IServer.h"

#include <memory>
#include <string>

namespace cagnt1 {

/// The server over HTTP or HTTPS.
///
/// Requests and replies of messages are shown on standard output as one line each, "out: " and
/// "in:  "; a transport failure is described on standard error before it is thrown.
///
/// Threads: every member may be called from several threads at once; each request has a connection
/// of its own.
class HttpServer : public IServer {
public:
    /// @param serverEndpoint base address, joined to the API paths by plain concatenation
    /// @param certificatePath PEM file handed to TLS as its authority file, with the verification
    ///        of peer and host switched off; empty: full verification against the system's
    ///        authorities
    /// @throws std::runtime_error when the transport library cannot be set up
    HttpServer(std::string serverEndpoint, const std::string& certificatePath);
    ~HttpServer() override;

    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    std::string sendMessages(const std::string& requestJson) override;
    bool downloadTargetPackage(const std::string& archiveName,
                               const std::string& destinationPath) override;
    bool uploadTraceFile(const std::string& localFilePath,
                         const std::string& remoteDirectory) override;

private:
    struct Templates;

    const std::string endpoint;
    const std::unique_ptr<Templates> templates;
};

}  // namespace cagnt1
