#include "agent/MakeRoom.h"

#include <new>

namespace cagnt1 {

namespace {

constexpr std::size_t kLargeText = std::size_t{1} << 20U;
constexpr std::size_t kAhead = 4;

}  // namespace

void makeRoom(std::string& text, std::size_t more) {
    const std::size_t needed = text.size() + more;
    if (needed <= text.capacity()) {
        return;
    }
    if (needed >= kLargeText) {
        try {
            text.reserve(kAhead * needed);
            return;
        } catch (const std::bad_alloc&) {
            // A limit of addresses, or a system that promises no memory that it does not have.
        }
    }
    text.reserve(needed);  // which doubles it
}

}  // namespace cagnt1
