#include "server/JsonText.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace cagnt1 {

namespace {

bool needsEscape(char character) {
    return static_cast<unsigned char>(character) < 0x20 || character == '"' || character == '\\';
}

void appendEscaped(std::string& json, char character) {
    constexpr std::string_view kSpecial = "\"\\\b\t\n\f\r";
    constexpr std::string_view kLetters = "\"\\btnfr";
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    json += '\\';
    if (const std::size_t letter = kSpecial.find(character); letter != std::string_view::npos) {
        json += kLetters[letter];
    } else {
        const auto code = static_cast<unsigned char>(character);
        json += "u00";
        json += kDigits[code >> 4U];
        json += kDigits[code & 0x0FU];
    }
}

void* orBadAlloc(void* block) {
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

}  // namespace

void* JsonAllocator::Malloc(std::size_t size) {
    return size != 0 ? orBadAlloc(std::malloc(size)) : nullptr;
}

void* JsonAllocator::Realloc(void* block, std::size_t, std::size_t newSize) {
    if (newSize == 0) {
        std::free(block);
        return nullptr;
    }
    return orBadAlloc(std::realloc(block, newSize));
}

void JsonAllocator::Free(void* block) noexcept {
    std::free(block);
}

JsonDocument parseJson(const std::string& text) {
    // Iterative parsing accepts the same texts as recursive parsing, and deep nesting cannot
    // overflow the stack.
    constexpr unsigned kFlags = rapidjson::kParseDefaultFlags | rapidjson::kParseIterativeFlag;
    JsonDocument document;
    document.Parse<kFlags>(text.c_str());
    return document;
}

const JsonValue* findMember(const JsonValue& object, const char* name) {
    if (!object.IsObject()) {
        return nullptr;
    }
    const auto position = object.FindMember(name);
    return position != object.MemberEnd() ? &position->value : nullptr;
}

std::string textOf(const JsonValue& value) {
    return value.IsString() ? std::string(value.GetString()) : std::string();
}

void appendText(std::string& json, std::string_view text) {
    const char* position = text.data();
    const char* const end = position + text.size();
    json += '"';
    for (;;) {
        const char* const special = std::find_if(position, end, needsEscape);
        json.append(position, special);
        if (special == end) {
            break;
        }
        appendEscaped(json, *special);
        position = special + 1;
    }
    json += '"';
}

}  // namespace cagnt1
