#pragma once

#include <rapidjson/document.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace cagnt1 {

/// Memory for the JSON library that fails with std::bad_alloc. The library's own allocator returns
/// null where there is no memory, and the library writes through it.
class JsonAllocator {
public:
    static constexpr bool kNeedFree = true;

    void* Malloc(std::size_t size);
    void* Realloc(void* block, std::size_t originalSize, std::size_t newSize);
    static void Free(void* block) noexcept;
};

using JsonPool = rapidjson::MemoryPoolAllocator<JsonAllocator>;
using JsonDocument = rapidjson::GenericDocument<rapidjson::UTF8<>, JsonPool, JsonAllocator>;
using JsonValue = JsonDocument::ValueType;

/// Parses strict JSON (RFC 8259, encoding not checked) up to the first NUL of `text`, whatever the
/// depth of its nesting. Text that is not JSON gives the value null.
/// @throws std::bad_alloc
JsonDocument parseJson(const std::string& text);

/// The member `name` of `object`, the first of several; null when `object` is no object or has
/// no such member.
const JsonValue* findMember(const JsonValue& object, const char* name);

/// The text of a string value up to its first NUL; empty for a value of another type.
std::string textOf(const JsonValue& value);

/// Appends `text` as a JSON string, quotes included. Texts may be of any size: the library's own
/// writer reserves six times the text with 32-bit arithmetic, which a collector's output of some
/// hundred megabytes overflows.
void appendText(std::string& json, std::string_view text);

}  // namespace cagnt1
