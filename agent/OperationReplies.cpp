#include "agent/OperationReplies.h"

#include <exception>
#include <iostream>
#include <string>
#include <utility>

namespace cagnt1 {

OperationReplies::OperationReplies(std::function<void(const std::vector<Message>&)> handler)
    : handle(std::move(handler)), thread([this] { handleReplies(); }) {}

OperationReplies::~OperationReplies() {
    finish();
}

void OperationReplies::add(std::vector<Message> reply) {
    const std::lock_guard lock(repliesMutex);
    if (reply.empty() || finishing) {
        return;
    }
    replies.push_back(std::move(reply));
    repliesChanged.notify_one();
}

void OperationReplies::finish() {
    {
        const std::lock_guard lock(repliesMutex);
        finishing = true;
        repliesChanged.notify_one();
    }
    if (thread.joinable()) {
        thread.join();
    }
}

bool OperationReplies::isHandlingThread() const {
    return std::this_thread::get_id() == thread.get_id();
}

void OperationReplies::handleReplies() {
    std::unique_lock lock(repliesMutex);
    for (;;) {
        repliesChanged.wait(lock, [this] { return finishing || !replies.empty(); });
        if (replies.empty()) {
            return;
        }
        const std::vector<Message> reply = std::move(replies.front());
        replies.pop_front();
        lock.unlock();
        try {
            handle(reply);
        } catch (const std::exception& error) {
            // Nobody waits for this reply's handling, so that its failure is told at once.
            std::cerr << std::string(error.what()) + "\n";
        }
        lock.lock();
    }
}

}  // namespace cagnt1
