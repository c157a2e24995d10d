#pragma once

#include "basekit2/UniqueFd.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace kolvan::test {

/// A response as it came over a connection.
struct ReceivedResponse {
    int status = 0;
    std::map<std::string, std::string> fields;  ///< names in lower case
    std::string body;                           ///< without the marks of chunks
    bool complete = false;                      ///< the body came to its announced end
};

/// A client that says exactly what it is told, over one plain connection to 127.0.0.1.
///
/// Threads: one at a time.
class Client {
public:
    /// Connects.
    /// @throws std::system_error
    explicit Client(unsigned port);

    /// Sends all of the bytes.
    /// @return false when the server had gone first
    bool send(std::string_view bytes);

    /// Blocks until the text has come.
    /// @return what came before it; nothing when the connection ended first
    std::optional<std::string> readTo(std::string_view text);

    /// Reads one response. Those with status 100 are passed over.
    /// @param headOnly there is no body whatever the head says
    /// @return status 0 when the connection ended before its head
    ReceivedResponse readResponse(bool headOnly = false);

    /// Reads what comes until the server ends the connection.
    std::string readAll();

    /// Says that nothing more will be sent.
    void endSending();

    /// Ends the connection the hard way, as a machine does whose program was killed with data
    /// unread.
    void reset();

    /// Sends a request without a body and reads the response.
    ReceivedResponse get(const std::string& target);

private:
    bool receive();
    std::optional<std::string> take(std::size_t length);

    basekit2::UniqueFd socket;
    std::string received;
};

}  // namespace kolvan::test
