#include "basekit2/Places.h"

namespace basekit2 {

Places::Place Places::take() {
    std::unique_lock lock(placesMutex);
    if (free > 0) {
        --free;
        return Place(*this);
    }
    Waiter self;
    waiters.push_back(&self);
    self.answered.wait(lock, [&self] { return self.answer != Answer::Wait; });
    return self.answer == Answer::Enter ? Place(*this) : Place();
}

void Places::turnAway() noexcept {
    const std::lock_guard lock(placesMutex);
    for (Waiter* const waiter : waiters) {
        tell(*waiter, Answer::Leave);
    }
    waiters.clear();
}

// With placesMutex held: the waiter is gone as soon as it has seen the answer.
void Places::tell(Waiter& waiter, Answer answer) noexcept {
    waiter.answer = answer;
    waiter.answered.notify_one();
}

// A place goes straight to the one who has waited longest: a newcomer does not get between.
void Places::giveBack() noexcept {
    const std::lock_guard lock(placesMutex);
    if (waiters.empty()) {
        ++free;
        return;
    }
    tell(*waiters.front(), Answer::Enter);
    waiters.pop_front();
}

}  // namespace basekit2
