#include "basekit2/Places.h"

namespace basekit2 {

Places::Place Places::take() {
    std::unique_lock lock(placesMutex);
    if (free > 0) {
        --free;
        return Place(*this);
    }
    Waiter self;
    (first == nullptr ? first : last->next) = &self;
    last = &self;
    self.answered.wait(lock, [&self] { return self.answer != Answer::Wait; });
    return self.answer == Answer::Enter ? Place(*this) : Place();
}

void Places::turnAway() noexcept {
    const std::lock_guard lock(placesMutex);
    while (first != nullptr) {
        answerFirst(Answer::Leave);
    }
}

// With placesMutex held and somebody waiting. The waiter is gone as soon as it has seen the answer.
void Places::answerFirst(Answer answer) noexcept {
    Waiter& waiter = *first;
    first = waiter.next;
    waiter.answer = answer;
    waiter.answered.notify_one();
}

// A place goes straight to the one who has waited longest: a newcomer does not get between.
void Places::giveBack() noexcept {
    const std::lock_guard lock(placesMutex);
    if (first == nullptr) {
        ++free;
    } else {
        answerFirst(Answer::Enter);
    }
}

}  // namespace basekit2
