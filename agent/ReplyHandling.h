#pragma once

#include "server/Message.h"

#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace cagnt1 {

/// Handles the messages of the server's replies, one after the other, with the failures among them.
///
/// Handling a message may mean to send one, whose reply is handled next, before the rest. A failure
/// is told to the server as an "error" message, and the handling goes on; where that message cannot
/// be sent either, the whole reply is given up.
///
/// Threads: every member from any threads at once, as far as the two functions allow it.
class ReplyHandling {
public:
    /// Carries out what one message asks for.
    /// @return the reply to the message that this has sent, or nothing
    using HandleMessage = std::function<std::vector<Message>(const Message&)>;

    /// Sends one message.
    /// @return the server's reply
    using ExchangeMessage = std::function<std::vector<Message>(const Message&)>;

    ReplyHandling(HandleMessage handleMessage, ExchangeMessage exchangeMessage);

    /// Handles a whole reply, and the replies that follow from it.
    /// @throws what sending an "error" message of the reply itself has thrown; its rest is dropped
    void handleReply(const std::vector<Message>& reply) const;

    /// Does what `handleReply()` does, for one message that `action` stands for.
    void handleAction(const std::function<std::vector<Message>()>& action) const;

private:
    /// A message that waits to be handled. Its depth is 1 in the original reply, and one more than
    /// that of the message whose handling has brought it:
    ///
    ///     reply to a poll         [cancel, execute]        both of depth 1
    ///     cancel is handled:      sends "…cancelled"
    ///     reply to that           [stop]                   of depth 2, handled before execute
    struct PendingMessage {
        Message message;
        int depth = 1;
    };
    using PendingMessages = std::deque<PendingMessage>;

    static void putFirst(const std::vector<Message>& reply, int depth, PendingMessages& pending);
    void handleAll(PendingMessages& pending) const;
    void handleGuarded(const std::function<std::vector<Message>()>& action, int depth,
                       PendingMessages& pending) const;
    void reportFailure(std::string failure, int depth, PendingMessages& pending) const;

    const HandleMessage handleMessage;
    const ExchangeMessage exchangeMessage;
};

}  // namespace cagnt1
