#pragma once

#include "agent/Agent.h"
#include "agent/OutputRequest.h"

#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <string>

namespace cagnt1 {

/// The channel on which an operation's text travels.
enum class OutputChannel { Feedback, Stdout, Stderr };

/// Gathers the text of one output channel of one operation for a short time, so that a collector
/// that writes many small pieces makes few messages.
///
/// A piece of text leaves one delay after it arrived, together with what has arrived since; while
/// a send is in flight later text is gathered, and leaves one delay after that send. So no text
/// waits longer than one delay plus one request, and at most one message is on its way.
///
/// Owned through `std::shared_ptr`. Whoever owns one calls `close()` before letting go of it: the
/// last owner must not be the sending thread, which cannot join itself.
///
/// Threads: every member from any threads at once.
class Agent::OperationProgressAggregator
    : public std::enable_shared_from_this<OperationProgressAggregator> {
public:
    /// @param agent sends the messages; it outlives the aggregator, because it waits for every
    ///        operation before it goes
    OperationProgressAggregator(OutputChannel channel, Agent& agent,
                                const std::string& operationId);

    /// Takes text to be sent after the delay. Never waits for the network and never throws for
    /// want of a thread: the text then goes with the next one or with `finish()`.
    void send(const std::string& text);

    /// Sends what has been gathered, now and on this thread.
    /// @throws what the agent's sending throws; the text is lost then
    void flush();

    /// Waits for the delayed sends, then sends what is left.
    /// @throws what `flush()` throws; failures of delayed sends are not reported
    void finish();

    /// Lets the delayed send that is under way be the last one: text that comes later, or that is
    /// left in the buffer, is dropped. Does not wait.
    void abandon();

    /// Waits for the delayed send that is under way and takes no further text.
    void close();

private:
    static void sendDelayed(const std::weak_ptr<OperationProgressAggregator>& self,
                            std::chrono::milliseconds delay);
    bool sendScheduledText();
    void scheduleSend();
    bool hasText();
    std::string takeRequest();
    void giveRoomBack();
    void waitForPendingSend();

    Agent& agent;
    const std::chrono::milliseconds delay;
    const OutputFrame frame;  // of every request of this channel

    OutputRequest buffer;           // guarded by mutex; what has been gathered, as it leaves
    std::string room;               // guarded by mutex; memory for the next request
    std::future<void> pendingSend;  // guarded by mutex; the scheduled or running delayed sends
    std::mutex mutex;               // no other lock is taken under it
    bool sendScheduled = false;     // guarded by mutex; a delayed send will look at the buffer
    bool closed = false;            // guarded by mutex; no text is taken any more
};

}  // namespace cagnt1
