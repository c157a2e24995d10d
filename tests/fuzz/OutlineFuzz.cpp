// The input is a configuration file, as the checker sees it.
#include "companions/check/JsonOutline.h"
#include "companions/check/TextPlace.h"
#include "server/AgentConfigurationJson.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/fuzz/JsonOracle.h"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>

namespace {

using namespace kolvan::check;

// Both sides have a type of the name JsonMember.
using kolvan::fuzz::Json;
using kolvan::fuzz::readJson;
using kolvan::fuzz::require;
using kolvan::fuzz::requireEqual;
using kolvan::fuzz::Undecided;
using kolvan::fuzz::upToNul;

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

bool hasErrors(const JsonOutline& outline) {
    return std::any_of(
        outline.mistakes.begin(), outline.mistakes.end(),
        [](const JsonMistake& mistake) { return mistake.severity == Severity::Error; });
}

// The oracle does not tell the other kinds apart.
Json::Kind oracleKind(JsonKind kind) {
    switch (kind) {
        case JsonKind::Object:
            return Json::Kind::Object;
        case JsonKind::Array:
            return Json::Kind::Array;
        case JsonKind::Text:
            return Json::Kind::Text;
        default:
            return Json::Kind::Other;
    }
}

void checkPlaces(const std::string& text, const JsonOutline& outline) {
    for (const JsonMistake& mistake : outline.mistakes) {
        require(mistake.offset <= text.size(), "a mistake lies in the text, or at its end");
        require(!mistake.topic.empty() && !mistake.text.empty(), "a mistake is explained");
        const Place place = placeInText("", text, mistake.offset);
        require(place.line >= 1 && place.column >= 1, "lines and columns count from 1");
    }
    std::size_t end = 0;
    for (const JsonMember& member : outline.members) {
        require(member.keyOffset >= end && text[member.keyOffset] == '"',
                "each key begins with a quote, behind the one before it");
        end = member.keyOffset + 1;
    }
    const bool isObject = outline.kind == JsonKind::Object;
    require(isObject || outline.members.empty(), "only an object has members");
}

// A text of which the outline should be the whole truth.
void checkMembers(const Json& json, const JsonOutline& outline) {
    require(outline.kind && oracleKind(*outline.kind) == json.kind, "the kind of the text");
    require(outline.members.size() == json.members.size(), "as many members");
    for (std::size_t index = 0; index < json.members.size(); ++index) {
        const JsonMember& member = outline.members[index];
        const auto& [name, value] = json.members[index];
        requireEqual(name, member.key, "the key of a member");
        require(oracleKind(member.kind) == value.kind, "the kind of a member");
        requireEqual(value.text, member.text, "the text of a member");
    }
}

void checkAgainstOracle(const std::string& text, const JsonOutline& outline) {
    const bool marked = text.starts_with(kByteOrderMark);
    try {
        const std::optional<Json> json =
            readJson(marked ? text.substr(kByteOrderMark.size()) : text);
        require(marked || hasErrors(outline) == !json, "what is no JSON is an error");
        if (json) {
            checkMembers(*json, outline);
        }
    } catch (const Undecided&) {
        // Nothing to compare with.
    }
}

// The agent's own reading of the file, of which the checker speaks.
void checkAgainstAgent(const std::string& text, const JsonOutline& outline) {
    const cagnt1::AgentConfiguration configuration = cagnt1::parseConfiguration(text);
    if (hasErrors(outline)) {
        require(configuration == cagnt1::AgentConfiguration(),
                "the agent sees nothing in a text with an error");
        return;
    }
    const auto token =
        std::find_if(outline.members.begin(), outline.members.end(),
                     [](const JsonMember& member) { return member.key == "accessToken"; });
    requireEqual(token == outline.members.end() ? "" : upToNul(token->text),
                 configuration.accessToken, "the agent sees the same token");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const JsonOutline outline = outlineOf(text);
    checkPlaces(text, outline);
    checkAgainstOracle(text, outline);
    checkAgainstAgent(text, outline);
    return 0;
}
