#include "agent/OutputRequest.h"

#include "server/MessageJson.h"

#include <utility>

namespace cagnt1 {

namespace {

// Length of the frame up to where the output stands. No value can look like the mark: quotes in
// values are escaped.
std::size_t headSizeOf(const std::string& frame) {
    constexpr std::string_view kMark = R"("message":")";
    return frame.find(kMark) + kMark.size();
}

}  // namespace

OutputRequest::OutputRequest(Message message, std::string room)
    : frame(std::move(message)), text(std::move(room)) {
    // In this order, because most maps list the newest first: what stands before the output should
    // not depend on its size, or it has to be moved in the end.
    frame.parameters["size"] = std::to_string(size);
    frame.parameters["message"].clear();
    const std::string whole = messageToJson(frame);
    headSize = headSizeOf(whole);
    text.assign(whole, 0, headSize);
}

void OutputRequest::append(std::string_view output) {
    encoder.append(text, output);
    size += output.size();
}

std::string OutputRequest::complete() && {
    encoder.finish(text);
    frame.parameters["size"] = std::to_string(size);
    const std::string whole = messageToJson(frame);
    const std::size_t split = headSizeOf(whole);
    text.replace(0, headSize, whole, 0, split);
    text.append(whole, split);
    return std::move(text);
}

}  // namespace cagnt1
