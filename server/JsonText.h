#pragma once

#include <rapidjson/document.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace cagnt1 {

/// Memory for the JSON library; where there is none it throws std::bad_alloc. The library's own
/// allocator returns null instead, and the library then writes through the null pointer.
class JsonAllocator {
public:
    static constexpr bool kNeedFree = true;

    void* Malloc(std::size_t size);
    void* Realloc(void* block, std::size_t originalSize, std::size_t newSize);
    static void Free(void* block) noexcept;
};

/// Memory of one document. By default the library's pool begins with 64 KiB, and whenever a block
/// of that size is given back the C library tidies its heap up. Most messages need no more than
/// some hundred bytes; larger ones get further blocks.
class JsonPool : public rapidjson::MemoryPoolAllocator<JsonAllocator> {
public:
    JsonPool() : MemoryPoolAllocator(kBlockSize) {}

private:
    static constexpr std::size_t kBlockSize = std::size_t{4} * 1024;
};

using JsonDocument = rapidjson::GenericDocument<rapidjson::UTF8<>, JsonPool, JsonAllocator>;
using JsonValue = JsonDocument::ValueType;

/// Parses strict JSON (RFC 8259, encoding not checked) up to the first NUL of `text`, whatever the
/// depth of its nesting. Text that is not JSON gives the JSON value null.
/// @throws std::bad_alloc
JsonDocument parseJson(const std::string& text);

/// Finds the first member `name` of `object`. Returns a null pointer when there is none, or when
/// `object` is not a JSON object.
const JsonValue* findMember(const JsonValue& object, const char* name);

/// The text of a string value up to its first NUL; empty for a value of another type.
std::string textOf(const JsonValue& value);

/// Appends `text` as a JSON string, quotes included. The text may be of any size. The library's own
/// writer is not used because it computes six times the size in 32 bits, which overflows at 716
/// million bytes; a message with half a gigabyte of output is larger.
void appendText(std::string& json, std::string_view text);

}  // namespace cagnt1
