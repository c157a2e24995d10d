#pragma once

#include "basekit2/UniqueFd.h"

#include <stdexcept>
#include <string>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cagnt1::operations {

/// Holds a script until it is opened: the script says `read line < path`. Destruction opens it too.
/// Or, the other way round, tells when a script has come to a place.
class ScriptGate {
public:
    explicit ScriptGate(std::string place) : place(std::move(place)) {
        if (::mkfifo(this->place.c_str(), 0666) != 0) {
            throw std::runtime_error("no gate at " + this->place);
        }
        pipe.reset(::open(this->place.c_str(), O_RDWR | O_CLOEXEC));
    }

    const std::string& path() const { return place; }

    /// Lets one reader pass, the next one to come included.
    void open() {
        if (::write(pipe.get(), "\n", 1) != 1) {
            throw std::runtime_error("gate is jammed at " + place);
        }
    }

    /// Blocks until a script has said `echo > path`.
    /// @return false when that takes unreasonably long
    bool waitForScript() {
        pollfd readable{pipe.get(), POLLIN, 0};
        constexpr int kPatienceMilliseconds = 60000;
        char byte = 0;
        return ::poll(&readable, 1, kPatienceMilliseconds) == 1 &&
               ::read(pipe.get(), &byte, 1) == 1;
    }

private:
    std::string place;
    basekit2::UniqueFd pipe;
};

}  // namespace cagnt1::operations
