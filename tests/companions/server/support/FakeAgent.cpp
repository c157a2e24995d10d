#include "tests/companions/server/support/FakeAgent.h"

#include <openssl/evp.h>
#include <rapidjson/document.h>

namespace kolvan::test {

namespace {

constexpr char kBoundary[] = "end-of-part";

std::string base64(const std::string& bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                       reinterpret_cast<const unsigned char*>(bytes.data()),
                                       static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(length));
    return text;
}

std::string outputParameters(const std::string& operation, const std::string& text) {
    return R"(,"id":")" + operation + R"(","size":")" + std::to_string(text.size()) +
           R"(","message":")" + base64(text) + '"';
}

std::string headOf(const std::string& body) {
    return "POST /api/collection-agent/message HTTP/1.1\r\nHost: test\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n";
}

std::string textOf(const rapidjson::Value& object, const char* name) {
    return object.HasMember(name) ? object[name].GetString() : "";
}

}  // namespace

std::string FakeAgent::message(const std::string& type, const std::string& moreParameters) const {
    return R"({"messageType":")" + type + R"(","messageParameters":{)" + R"("agentUuid":")" + uuid +
           R"(","accessToken":")" + token + '"' + moreParameters + "}}";
}

ReceivedResponse FakeAgent::say(const std::string& type, const std::string& moreParameters) const {
    const std::string body = message(type, moreParameters);
    Client client(port);
    (void)client.send(headOf(body) + body);  // the answer tells
    return client.readResponse();
}

ReceivedResponse FakeAgent::writeOutput(const std::string& operation,
                                        const std::string& text) const {
    return say("collector:stdout", outputParameters(operation, text));
}

FakeAgent::RequestText FakeAgent::outputText(const std::string& operation,
                                             const std::string& text) const {
    const std::string body = message("collector:stdout", outputParameters(operation, text));
    const std::size_t half = body.size() / 2;
    return {headOf(body) + body.substr(0, half), body.substr(half)};
}

ReceivedResponse FakeAgent::finish(const std::string& operation, int code) const {
    return say("collector:finish",
               R"(,"id":")" + operation + R"(","code":")" + std::to_string(code) + '"');
}

FakeAgent::RequestText FakeAgent::uploadText(const std::string& directory, const std::string& name,
                                             const std::string& content) {
    const std::string head = std::string("--") + kBoundary +
                             "\r\nContent-Disposition: form-data; name=\"" + directory +
                             "\"; filename=\"" + name + "\"\r\n\r\n";
    const std::string tail =
        std::string("\r\n--") + kBoundary +
        "\r\nContent-Disposition: form-data; name=\"submit\"\r\n\r\nsend\r\n--" + kBoundary +
        "--\r\n";
    const std::size_t half = content.size() / 2;
    const std::size_t length = head.size() + content.size() + tail.size();
    return {
        "POST /api/collection-agent/trace/upload HTTP/1.1\r\nHost: test\r\n"
        "Content-Type: multipart/form-data; boundary=" +
            std::string(kBoundary) + "\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n" +
            head + content.substr(0, half),
        content.substr(half) + tail};
}

ReceivedResponse FakeAgent::upload(const std::string& directory, const std::string& name,
                                   const std::string& content) const {
    const RequestText text = uploadText(directory, name, content);
    Client client(port);
    (void)client.send(text.beginning + text.end);  // the answer tells
    return client.readResponse();
}

std::vector<ReceivedCommand> commandsOf(const ReceivedResponse& answer) {
    std::vector<ReceivedCommand> commands;
    rapidjson::Document document;
    document.Parse(answer.body.c_str());
    if (document.IsObject() && document.HasMember("messages")) {
        for (const auto& message : document["messages"].GetArray()) {
            const auto& parameters = message["messageParameters"];
            commands.push_back({message["messageType"].GetString(), textOf(parameters, "id"),
                                textOf(parameters, "traceUploadDirectory")});
        }
    }
    return commands;
}

}  // namespace kolvan::test
