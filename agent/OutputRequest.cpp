#include "agent/OutputRequest.h"

#include "server/MessageJson.h"

#include <utility>

namespace cagnt1 {

OutputFrame::OutputFrame(const Message& message)
    : pieces(messageToJsonAround(message, {"message", "size"})) {}

OutputRequest::OutputRequest(const OutputFrame& channelFrame, std::string room)
    : frame(&channelFrame), text(std::move(room)) {
    text = channelFrame.beforeOutput();
}

void OutputRequest::append(std::string_view output) {
    encoder.append(text, output);
    size += output.size();
}

std::string OutputRequest::complete() && {
    encoder.finish(text);
    text += frame->beforeSize();
    text += std::to_string(size);
    text += frame->afterSize();
    return std::move(text);
}

}  // namespace cagnt1
