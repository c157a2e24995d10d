#pragma once

#include <stdexcept>
#include <string>

namespace kolvan::server {

/// A call of the store that has changed nothing.
class StoreError : public std::runtime_error {
public:
    enum class Reason {
        NameTaken,    ///< something else has that name
        NotFound,     ///< what was named does not exist
        Full,         ///< the disk is full; the call may be tried again later
        Busy,         ///< others kept the data locked for too long; the call may be tried again
        Damaged,      ///< the file is no longer what was written into it
        NewerSchema,  ///< a newer server has written the data
        Failed,       ///< anything else: the text says what
    };

    StoreError(Reason errorReason, const std::string& text)
        : std::runtime_error(text), why(errorReason) {}

    Reason reason() const noexcept { return why; }

private:
    Reason why;
};

}  // namespace kolvan::server
