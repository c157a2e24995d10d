#include "basekit2/Event.h"

#include <cerrno>
#include <system_error>

#include <sys/eventfd.h>

namespace basekit2 {

UniqueFd create_event() {
    UniqueFd event(::eventfd(0, EFD_CLOEXEC));
    if (!event) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    return event;
}

}  // namespace basekit2
