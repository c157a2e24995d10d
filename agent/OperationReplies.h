#pragma once

#include "server/Message.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace cagnt1 {

/// Handles the replies to operations' messages, one after the other in the order in which they
/// came, on a thread that no operation waits for.
///
/// Threads: `add` from any thread; it never blocks on the handling.
class OperationReplies {
public:
    /// @param handler is given the messages of one reply; what it throws goes to standard error
    /// @throws std::system_error when there is no thread to be had
    explicit OperationReplies(std::function<void(const std::vector<Message>&)> handler);

    /// Does what `finish()` does.
    ~OperationReplies();

    OperationReplies(const OperationReplies&) = delete;
    OperationReplies& operator=(const OperationReplies&) = delete;

    /// Takes the messages of one reply. After `finish()` nobody is left to handle any, and they
    /// are dropped.
    void add(std::vector<Message> reply);

    /// Blocks until every reply has been handled, then ends the thread. Called by one thread, not
    /// by the handler.
    void finish();

    /// Whether the caller runs on the thread that handles the replies.
    bool isHandlingThread() const;

private:
    void handleReplies();

    const std::function<void(const std::vector<Message>&)> handle;

    std::mutex repliesMutex;  // guards the members up to the blank line; no other lock under it
    std::condition_variable repliesChanged;
    std::deque<std::vector<Message>> replies;
    bool finishing = false;

    std::thread thread;  // last: it uses all of the above
};

}  // namespace cagnt1
