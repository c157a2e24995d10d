#include "tests/support/standin/ArrivedMessage.h"

#include "companions/server/protocol/MessageReader.h"

namespace kolvan::test {

using server::protocol::MessageReader;

ArrivedMessage readMessage(std::string_view json) {
    ArrivedMessage arrived;
    MessageReader reader(
        [&arrived](const AgentMessage&, std::string_view bytes) { arrived.output.append(bytes); });
    reader.put(json);
    arrived.message = reader.finish();
    return arrived;
}

}  // namespace kolvan::test
