#pragma once

#include "server/Message.h"

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace kolvan::test {

using Messages = std::vector<cagnt1::Message>;

/// What a server says, as messages.
inline cagnt1::Message connected() {
    return {"connected", {}};
}
inline cagnt1::Message disconnected() {
    return {"disconnected", {}};
}
inline cagnt1::Message stop() {
    return {"stop", {}};
}
inline cagnt1::Message cancel() {
    return {"collector:operations:cancel", {}};
}

inline cagnt1::Message serverError(const std::string& text) {
    return {"error", {{"errorMessage", text}}};
}

inline cagnt1::Message execute(const std::string& id, const std::string& args) {
    return {"collector:execute", {{"id", id}, {"args", args}}};
}

inline cagnt1::Message startCollection(const std::string& id, const std::string& options,
                                       const std::string& traceUploadDirectory) {
    return {"collector:collection:start",
            {{"id", id}, {"options", options}, {"traceUploadDirectory", traceUploadDirectory}}};
}

inline cagnt1::Message collectionCommand(const std::string& id, const std::string& command) {
    return {"collector:collection:command", {{"id", id}, {"command", command}}};
}

/// Bytes behind a Base64 text (standard alphabet, padded, no line breaks).
/// @throws std::runtime_error when it is not such a text
inline std::string decodeBase64(const std::string& text) {
    static const std::string alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    if (text.size() % 4 != 0) {
        throw std::runtime_error("Base64 text is not padded: " + text);
    }
    std::size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') {
        ++padding;
    }
    std::string bytes;
    std::size_t bits = 0;
    unsigned int pending = 0;
    for (std::size_t i = 0; i < text.size() - padding; ++i) {
        const std::size_t value = alphabet.find(text[i]);
        if (value == std::string::npos) {
            throw std::runtime_error("not a Base64 text: " + text);
        }
        pending = (pending << 6U) | static_cast<unsigned int>(value);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes.push_back(static_cast<char>((pending >> bits) & 0xFFU));
        }
    }
    return bytes;
}

/// Text that an output message ("collector:stdout" and its kind) carries.
inline std::string outputText(const cagnt1::Message& output) {
    return decodeBase64(output.parameter("message"));
}

}  // namespace kolvan::test
