#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <utility>

namespace basekit2 {

/// A number of places that are taken and given back. Whoever finds none free waits; who came first
/// is served first.
///
/// Threads: every member from any threads at once. The object outlives every place of it.
class Places {
public:
    /// One place, given back at the end of its life, or none.
    class Place {
    public:
        Place() noexcept = default;
        Place(Place&& other) noexcept : owner(std::exchange(other.owner, nullptr)) {}
        Place& operator=(Place&& other) noexcept {
            std::swap(owner, other.owner);
            return *this;
        }
        ~Place() {
            if (owner != nullptr) {
                owner->giveBack();
            }
        }

        explicit operator bool() const noexcept { return owner != nullptr; }

    private:
        friend class Places;

        explicit Place(Places& places) noexcept : owner(&places) {}

        Places* owner = nullptr;
    };

    /// @param count at least 1
    explicit Places(std::size_t count) noexcept : free(count) {}

    Places(const Places&) = delete;
    Places& operator=(const Places&) = delete;

    /// Takes a place, once there is one.
    /// @return it; none when `turnAway()` was called meanwhile
    Place take();

    /// Sends away, without a place, everybody who waits for one at this moment.
    void turnAway() noexcept;

private:
    enum class Answer { Wait, Enter, Leave };

    /// Stands on the stack of whoever waits.
    struct Waiter {
        Answer answer = Answer::Wait;
        std::condition_variable answered;
        Waiter* next = nullptr;
    };

    void answerFirst(Answer answer) noexcept;
    void giveBack() noexcept;

    // Guards free, first, last and the waiters that they lead to. No other lock is taken under it.
    std::mutex placesMutex;
    std::size_t free;  // 0 as long as somebody waits
    Waiter* first = nullptr;
    Waiter* last = nullptr;  // has no meaning while nobody waits
};

}  // namespace basekit2
