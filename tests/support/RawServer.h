#pragma once

#include "basekit2/UniqueFd.h"
#include "tests/support/Certificates.h"

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kolvan::test {

/// The server's end of one connection, in the hands of a script.
///
/// Threads: one at a time, that of the script.
class RawConnection {
public:
    virtual ~RawConnection() = default;

    /// Position of the connection in the order in which the server accepted them, from 0.
    virtual std::size_t number() const = 0;

    /// Blocks for bytes of the client.
    /// @return empty when there will be none any more
    virtual std::string receive() = 0;

    /// Sends all of `bytes`.
    /// @return false when the client was gone first
    virtual bool send(std::string_view bytes) = 0;

    /// Reads up to the blank line that ends a request's head, and records it as a request.
    virtual std::string readHead() = 0;

    /// Reads a request with the body that its Content-Length announces, tells a client that asks
    /// for it to continue, and records the request.
    /// @return the request's bytes, fewer when the client ended early
    virtual std::string readRequest() = 0;

    /// Sends `bytes` one by one, each in a packet of its own.
    bool drip(std::string_view bytes);

    /// Tells the client that nothing more will be sent. The other direction stays open.
    virtual void halfClose() = 0;

    /// Makes the end of the script a reset of the connection.
    virtual void resetAtEnd() = 0;

    /// Makes the end of the script a close that TLS does not announce.
    virtual void omitCloseNotice() = 0;

    /// Blocks until the client, or the server's destructor, has ended the connection.
    void waitForPeerEnd();
};

/// A server on 127.0.0.1, on a port that the system chose, which says what a script tells it to
/// and records what it hears, byte for byte.
///
/// Every connection has a thread of its own that runs the script once; afterwards the connection
/// is closed. Threads: any member from any thread.
class RawServer {
public:
    using Script = std::function<void(RawConnection&)>;

    /// A server without TLS.
    explicit RawServer(Script script);

    /// A server with TLS. The script only sees connections whose handshake succeeded.
    RawServer(Script script, const ServerIdentity& identity);

    /// Ends all connections and waits for their scripts, none of which may block on anything else.
    ~RawServer();

    RawServer(const RawServer&) = delete;
    RawServer& operator=(const RawServer&) = delete;

    /// "127.0.0.1:" and the port.
    std::string host() const;

    /// Base address: scheme and host.
    std::string endpoint() const;

    /// The requests that scripts have read so far.
    std::vector<std::string> requests() const;

    /// Numbers of connections so far: accepted, ended (by either side), with a failed handshake.
    std::size_t acceptedConnections() const;
    std::size_t endedConnections() const;
    std::size_t failedHandshakes() const;

    /// Blocks until so many requests have been read or connections have ended.
    /// @return false when that takes unreasonably long
    bool waitForRequests(std::size_t count) const;
    bool waitForEndedConnections(std::size_t count) const;

private:
    class Connection;
    struct TlsContext;

    void listen();
    void acceptConnections();
    void serve(Connection& connection);
    void record(const std::string& request);

    const Script script;
    const std::unique_ptr<TlsContext> tls;  // none: plain connections
    basekit2::UniqueFd listener;
    unsigned port = 0;

    // Guards recorded, connections, ended, handshakesFailed and closing.
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<std::string> recorded;
    std::list<std::unique_ptr<Connection>> connections;
    std::size_t ended = 0;
    std::size_t handshakesFailed = 0;
    bool closing = false;

    std::vector<std::thread> connectionThreads;  // of the accepting thread until it is joined
    std::thread acceptingThread;
};

/// A port of 127.0.0.1 on which every connection is refused while the object lives.
class RefusingPort {
public:
    RefusingPort();

    /// "127.0.0.1:" and the port.
    std::string host() const;

private:
    unsigned port = 0;
    basekit2::UniqueFd socket;  // bound, never listening
};

/// A complete reply with its length. `headers` are further lines, each with its end.
std::string httpReply(int status, std::string_view body, std::string_view headers = {});

/// A script that reads one request and sends `bytes`.
RawServer::Script answerWith(std::string bytes);

/// Head and body of a request as `RawServer` records it, and one header's value (empty when the
/// header is missing).
std::string headOf(const std::string& request);
std::string bodyOf(const std::string& request);
std::string headerOf(const std::string& request, const std::string& name);

}  // namespace kolvan::test
