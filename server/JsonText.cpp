#include "server/JsonText.h"

#include <cstddef>

namespace cagnt1 {

namespace {

constexpr std::size_t kInitialCapacity = 256;

}  // namespace

rapidjson::Document parseJson(const std::string& text) {
    // Iterative parsing accepts what the recursive one does, and no nesting overflows the stack.
    constexpr unsigned kFlags = rapidjson::kParseDefaultFlags | rapidjson::kParseIterativeFlag;
    rapidjson::Document document;
    document.Parse<kFlags>(text.c_str());
    return document;
}

const rapidjson::Value* findMember(const rapidjson::Value& object, const char* name) {
    if (!object.IsObject()) {
        return nullptr;
    }
    const auto position = object.FindMember(name);
    return position != object.MemberEnd() ? &position->value : nullptr;
}

std::string textOf(const rapidjson::Value& value) {
    return value.IsString() ? std::string(value.GetString()) : std::string();
}

rapidjson::StringBuffer makeJsonBuffer() {
    return rapidjson::StringBuffer(nullptr, kInitialCapacity);
}

void writeText(JsonWriter& writer, const std::string& text) {
    writer.String(text.c_str());
}

}  // namespace cagnt1
