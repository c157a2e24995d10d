#include "companions/server/api/StoreHealth.h"

#include "companions/server/http/OnPool.h"
#include "companions/server/store/StoreError.h"

namespace kolvan::server::api {

http::Awaitable<std::optional<std::string>> StoreHealth::problem() {
    if (!isFresh()) {
        const http::Turns::Turn turn = co_await turns.take();
        if (!isFresh()) {  // nobody has tried while this one waited
            const auto look = [this] { return tryToWrite(); };
            found = co_await http::onPool(threads, look);
            tried = clock.steady();
        }
    }
    co_return found;
}

bool StoreHealth::isFresh() const {
    return tried && clock.steady() - *tried < kValidFor;
}

std::optional<std::string> StoreHealth::tryToWrite() const {
    try {
        store.tryToWrite();
        return std::nullopt;
    } catch (const StoreError& error) {
        // The error's own text has paths in it, which are not for everybody.
        switch (error.reason()) {
            case StoreError::Reason::Full:
                return "The disk with the server's data is full.";
            case StoreError::Reason::Busy:
                return "Others keep the server's data locked.";
            case StoreError::Reason::Damaged:
                return "The server's data are damaged.";
            default:
                return "The server's data cannot be written.";
        }
    }
}

}  // namespace kolvan::server::api
