#pragma once

#include "server/Message.h"

#include <string>
#include <vector>

namespace cagnt1 {

/// Writes one message as a JSON object without white space:
/// {"messageType":...,"messageParameters":{...}}, the parameters in the map's order.
///
/// Every text is written up to its first NUL. Control characters are escaped as RFC 8259 asks,
/// with upper-case hexadecimal digits; "/" and all bytes from 0x7F upward are written unchanged,
/// even if they are not valid UTF-8.
std::string messageToJson(const Message& message);

/// Writes one message around values that come later: after the parameters of `message` it has one
/// for each of `openNames`, in their order, whose value is left out. One of `message` that has such
/// a name gives way to it.
/// @return the text in pieces, one more than there are names; the values belong between them, as a
///         JSON string has them between its quotes. For {"stop", {}} and the name "a" these are
///         {"messageType":"stop","messageParameters":{"a":" and "}}
std::vector<std::string> messageToJsonAround(Message message,
                                             const std::vector<std::string>& openNames);

/// Writes a batch, {"messages":[...]}, in the order of the vector.
std::string messagesToJson(const std::vector<Message>& messages);

/// Reads a batch as the server sends it.
///
/// Text that is not strict JSON (RFC 8259, encoding not checked), or that does not have the shape
/// of a batch, gives no messages. A parameter whose value is not a string becomes an empty text; of
/// several with one name the last counts. Names, types and values end at their first NUL, as does
/// `json`. Nesting of any depth is read without recursion.
/// @throws std::logic_error when an element of the batch has no type
std::vector<Message> messagesFromJson(const std::string& json);

}  // namespace cagnt1
