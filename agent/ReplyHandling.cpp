#include "agent/ReplyHandling.h"

#include <exception>
#include <utility>

namespace cagnt1 {

ReplyHandling::ReplyHandling(HandleMessage handleMessage, ExchangeMessage exchangeMessage)
    : handleMessage(std::move(handleMessage)), exchangeMessage(std::move(exchangeMessage)) {}

void ReplyHandling::handleReply(const std::vector<Message>& reply) const {
    PendingMessages pending;
    putFirst(reply, 1, pending);
    handleAll(pending);
}

void ReplyHandling::handleAction(const std::function<std::vector<Message>()>& action) const {
    PendingMessages pending;
    handleGuarded(action, 1, pending);
    handleAll(pending);
}

void ReplyHandling::putFirst(const std::vector<Message>& reply, int depth,
                             PendingMessages& pending) {
    for (auto message = reply.rbegin(); message != reply.rend(); ++message) {
        pending.push_front({*message, depth});
    }
}

// Without recursion: a server may answer every message with the next one for as long as it likes.
void ReplyHandling::handleAll(PendingMessages& pending) const {
    while (!pending.empty()) {
        const auto [message, depth] = std::move(pending.front());
        pending.pop_front();
        handleGuarded([this, &message = message] { return handleMessage(message); }, depth,
                      pending);
    }
}

void ReplyHandling::handleGuarded(const std::function<std::vector<Message>()>& action, int depth,
                                  PendingMessages& pending) const {
    std::vector<Message> reply;
    try {
        reply = action();
    } catch (const std::exception& error) {
        reportFailure(error.what(), depth, pending);
        return;
    }
    putFirst(reply, depth + 1, pending);
}

// Where the "error" message cannot be sent either, the rest of the reply is dropped in which the
// failed message stood. For the original reply, whose depth is 1, the failure is thrown. A reply of
// depth 2 or more was brought by a message one depth above: for that one it is a failure like any
// other, and is reported in turn.
void ReplyHandling::reportFailure(std::string failure, int depth, PendingMessages& pending) const {
    for (;;) {
        try {
            putFirst(exchangeMessage(makeErrorMessage(failure)), depth, pending);
            return;
        } catch (const std::exception& error) {
            std::erase_if(pending, [depth](const auto& next) { return next.depth >= depth; });
            if (--depth == 0) {
                throw;
            }
            failure = error.what();
        }
    }
}

}  // namespace cagnt1
