#include "companions/server/protocol/MessageReader.h"

#include "companions/server/protocol/Base64Decoder.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

namespace kolvan::server::protocol {
namespace {

constexpr const char* kType = "messageType";
constexpr const char* kParameters = "messageParameters";
constexpr const char* kOutput = "message";
constexpr const char* kSize = "size";

// What decides where output goes.
constexpr std::array<const char*, 3> kAddress = {"accessToken", "agentUuid", "id"};

// Output is handed on when there is so much of it. Whoever takes it opens a file each time.
constexpr std::size_t kHandedOn = std::size_t{32} * 1024;
// Characters of Base64 that are decoded at a time, for whoever puts much in at once.
constexpr std::size_t kDecoded = std::size_t{128} * 1024;

}  // namespace

class MessageReader::Listener final : public JsonListener {
public:
    explicit Listener(Output takesOutput) : output(std::move(takesOutput)) {}

    void beginObject() override {
        if (depth == 1 && name == kParameters) {
            inParameters = true;
        } else {
            beginOtherValue();
        }
        ++depth;
    }

    void endObject() override {
        --depth;
        inParameters = inParameters && depth != 1;
    }

    void beginArray() override {
        beginOtherValue();
        ++depth;
    }

    void endArray() override { --depth; }

    void beginText(bool isName) override {
        role = isName ? Role::Name : roleOfValue();
        content.clear();
        ended = false;
        if (role == Role::Output) {
            if (decoder) {
                throw ProtocolError("Output comes twice in one message,", decodedSize);
            }
            decoder.emplace();
        }
    }

    void text(std::string_view piece) override {
        if (role == Role::Output) {
            decode(piece);
        } else if (role != Role::None && !ended) {
            const std::size_t length = piece.find('\0');
            ended = length != std::string_view::npos;
            piece = piece.substr(0, length);
            if (content.size() + piece.size() > kLongestParameter) {
                throw ProtocolError("A parameter of the message is too long", content.size());
            }
            content.append(piece);
        }
    }

    void endText() override {
        switch (role) {
            case Role::Name:
                // Elsewhere names are of no interest, and there may be any number of them.
                name = isMember() ? std::move(content) : std::string();
                break;
            case Role::Type:
                checkUnchanged(kType, message.type);
                typeSeen = true;
                message.type = std::move(content);
                break;
            case Role::Parameter:
                setParameter(std::move(content));
                break;
            case Role::Output:
                decoder->finish();
                handOn(1);
                break;
            case Role::None:
                break;
        }
        role = Role::None;
    }

    void other() override { beginOtherValue(); }

    AgentMessage finish() {
        if (!typeSeen) {
            throw ProtocolError("The message has no type", 0);
        }
        if (!decoded.empty()) {
            output(message, std::exchange(decoded, {}));
        }
        const auto size = message.parameters.find(kSize);
        if (decoder && size != message.parameters.end() &&
            size->second != std::to_string(decodedSize)) {
            throw ProtocolError("Not as much output came as the message says", decodedSize);
        }
        return std::move(message);
    }

    std::uint64_t outputSize() const { return decodedSize; }

private:
    /// What a string is in the message.
    enum class Role { None, Name, Type, Parameter, Output };

    // The name that was read last is that of a member of the message or its parameters.
    bool isMember() const { return depth == 1 || (depth == 2 && inParameters); }

    Role roleOfValue() const {
        if (depth == 0) {
            throw ProtocolError("The message is no object", 0);
        }
        if (depth == 2 && inParameters) {
            return name == kOutput ? Role::Output : Role::Parameter;
        }
        return depth == 1 && name == kType ? Role::Type : Role::None;
    }

    // A value that is no string.
    void beginOtherValue() {
        if (depth == 0 && !begun) {
            begun = true;
            return;  // the message itself, if it is an object: an array has no type
        }
        if (roleOfValue() == Role::Parameter) {
            setParameter({});
        }
    }

    void setParameter(std::string value) {
        std::string& place = message.parameters[name];
        if (std::find(kAddress.begin(), kAddress.end(), name) != kAddress.end() && handedOn &&
            value != place) {
            throw ProtocolError("The message says after its output whose it is,", decodedSize);
        }
        keptSize += name.size() + value.size();
        if (keptSize > kLongestMessage) {
            throw ProtocolError("The message is too long", keptSize);
        }
        place = std::move(value);
    }

    void checkUnchanged(const char* what, const std::string& before) const {
        if (handedOn && content != before) {
            throw ProtocolError(
                std::string("The message changes its ") + what + " after its output,", decodedSize);
        }
    }

    bool isAddressed() const {
        return typeSeen &&
               std::all_of(kAddress.begin(), kAddress.end(), [this](const char* parameter) {
                   return message.parameters.count(parameter) != 0;
               });
    }

    void decode(std::string_view piece) {
        while (!piece.empty()) {
            const std::string_view part = piece.substr(0, kDecoded);
            piece.remove_prefix(part.size());
            std::array<char, Base64Decoder::mostOf(kDecoded)> bytes;
            const char* const end = decoder->put(part, bytes.data());
            take({bytes.data(), static_cast<std::size_t>(end - bytes.data())});
        }
    }

    void take(std::string_view bytes) {
        decodedSize += bytes.size();
        if (bytes.size() >= kHandedOn && isAddressed()) {
            handOn(1);
            handedOn = true;
            output(message, bytes);
        } else {
            decoded.append(bytes);
            handOn(kHandedOn);
        }
    }

    // Hands output on when there is so much of it, and it is known where it belongs.
    void handOn(std::size_t least) {
        if (!isAddressed()) {
            if (decoded.size() > kMostEarlyOutput) {
                throw ProtocolError("Output comes before the message says whose it is,",
                                    decodedSize);
            }
        } else if (decoded.size() >= least) {
            handedOn = true;
            output(message, decoded);
            decoded.clear();
        }
    }

    const Output output;
    AgentMessage message;
    std::size_t depth = 0;      // objects and arrays that we are in
    bool begun = false;         // the message itself
    bool inParameters = false;  // or deeper
    std::string name;           // of the member whose value comes next

    Role role = Role::None;  // of the string that is being read
    std::string content;     // of it, unless it is output
    bool ended = false;      // it has had its NUL
    bool typeSeen = false;
    std::size_t keptSize = 0;  // bytes of parameters, those included that were replaced

    std::optional<Base64Decoder> decoder;
    std::string decoded;            // not handed on yet
    std::uint64_t decodedSize = 0;  // all of it
    bool handedOn = false;
};

MessageReader::MessageReader(Output takesOutput)
    : listener(std::make_unique<Listener>(std::move(takesOutput))), scanner(*listener) {}

MessageReader::~MessageReader() = default;

void MessageReader::put(std::string_view piece) {
    scanner.put(piece);
}

AgentMessage MessageReader::finish() {
    scanner.finish();
    return listener->finish();
}

std::uint64_t MessageReader::outputSize() const {
    return listener->outputSize();
}

}  // namespace kolvan::server::protocol
