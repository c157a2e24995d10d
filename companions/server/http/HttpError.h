#pragma once

#include <stdexcept>
#include <string>

namespace kolvan::server::http {

/// A request cannot be fulfilled. The client is told status and text.
class HttpError : public std::runtime_error {
public:
    /// @param detail a sentence that helps whoever made the request
    HttpError(unsigned statusCode, const std::string& detail)
        : std::runtime_error(detail), code(statusCode) {}

    unsigned status() const { return code; }

private:
    unsigned code;
};

}  // namespace kolvan::server::http
