#include "companions/server/api/Body.h"

#include "companions/server/base/Utf8.h"
#include "companions/server/http/HttpError.h"

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

namespace kolvan::server::api {

namespace {

constexpr unsigned kFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag |
                            rapidjson::kParseFullPrecisionFlag;

bool isJson(std::string_view contentType) {
    const std::string_view type = contentType.substr(0, contentType.find(';'));
    const std::size_t end = type.find_last_not_of(' ');
    return http::equalIgnoringCase(type.substr(0, end == std::string_view::npos ? 0 : end + 1),
                                   "application/json");
}

std::string decimalText(double number) {
    std::array<char, 32> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), number,
                                   std::chars_format::fixed)
                         .ptr;  // the limits of the routes are short
    return {text.data(), end};
}

}  // namespace

struct Body::State {
    std::shared_ptr<rapidjson::Document> document;
    const rapidjson::Value* object = nullptr;  // in the document

    const rapidjson::Value* find(std::string_view name) const {
        const auto found = object->FindMember(rapidjson::Value(
            rapidjson::StringRef(name.data(), static_cast<rapidjson::SizeType>(name.size()))));
        return found == object->MemberEnd() || found->value.IsNull() ? nullptr : &found->value;
    }
};

Body::Body(std::shared_ptr<const State> ownState) : state(std::move(ownState)) {}

http::Awaitable<Body> Body::read(http::Request& request) {
    if (!isJson(request.field("Content-Type").value_or(""))) {
        throw http::HttpError(415, "The body has to be application/json.");
    }
    const std::string text = co_await request.readAll();
    auto read = std::make_shared<State>();
    read->document = std::make_shared<rapidjson::Document>();
    read->document->Parse<kFlags>(text.data(), text.size());
    if (read->document->HasParseError()) {
        throw http::HttpError(
            400, std::string("The body is no JSON: ") +
                     rapidjson::GetParseError_En(read->document->GetParseError()) + " At byte " +
                     std::to_string(read->document->GetErrorOffset()) + '.');
    }
    if (!read->document->IsObject()) {
        throw http::HttpError(400, "The body has to be a JSON object.");
    }
    read->object = read->document.get();
    co_return Body(std::move(read));
}

void Body::allow(const std::vector<std::string_view>& names) const {
    std::vector<std::string_view> seen;
    for (const auto& member : state->object->GetObject()) {
        const std::string_view name(member.name.GetString(), member.name.GetStringLength());
        if (std::find(names.begin(), names.end(), name) == names.end()) {
            refuse(name, "is unknown here");
        }
        // Of two with one name, whatever has looked at the body before may have seen the other one.
        if (std::find(seen.begin(), seen.end(), name) != seen.end()) {
            refuse(name, "is given twice");
        }
        seen.push_back(name);
    }
}

void Body::refuseNull(const std::vector<std::string_view>& names) const {
    for (const auto& member : state->object->GetObject()) {
        const std::string_view name(member.name.GetString(), member.name.GetStringLength());
        if (member.value.IsNull() && std::find(names.begin(), names.end(), name) != names.end()) {
            refuse(name, "may not be null");
        }
    }
}

bool Body::has(std::string_view name) const {
    return state->find(name) != nullptr;
}

std::optional<std::string> Body::text(std::string_view name, std::size_t most) const {
    const rapidjson::Value* const value = state->find(name);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->IsString()) {
        refuse(name, "has to be a string");
    }
    std::string given(value->GetString(), value->GetStringLength());
    if (characterCount(given) > most) {
        refuse(name, "may have " + std::to_string(most) + " characters at most");
    }
    return given;
}

std::optional<bool> Body::truth(std::string_view name) const {
    const rapidjson::Value* const value = state->find(name);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->IsBool()) {
        refuse(name, "has to be true or false");
    }
    return value->GetBool();
}

std::optional<std::int64_t> Body::integer(std::string_view name, std::int64_t least,
                                          std::int64_t most) const {
    const rapidjson::Value* const value = state->find(name);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->IsInt64() || value->GetInt64() < least || value->GetInt64() > most) {
        refuse(name, "has to be a whole number from " + std::to_string(least) + " to " +
                         std::to_string(most));
    }
    return value->GetInt64();
}

std::optional<double> Body::number(std::string_view name, double least, double most) const {
    const rapidjson::Value* const value = state->find(name);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->IsNumber() || value->GetDouble() < least || value->GetDouble() > most) {
        refuse(name, "has to be a number from " + decimalText(least) + " to " + decimalText(most));
    }
    return value->GetDouble();
}

std::optional<std::vector<std::string>> Body::texts(std::string_view name, std::size_t most) const {
    const rapidjson::Value* const value = state->find(name);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->IsArray() || value->Size() > most) {
        refuse(name, "has to be a list of " + std::to_string(most) + " strings at most");
    }
    std::vector<std::string> elements;
    for (const rapidjson::Value& element : value->GetArray()) {
        if (!element.IsString()) {
            refuse(name, "has to be a list of strings");
        }
        elements.emplace_back(element.GetString(), element.GetStringLength());
    }
    return elements;
}

std::optional<Body> Body::object(std::string_view name) const {
    const rapidjson::Value* const value = state->find(name);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->IsObject()) {
        refuse(name, "has to be an object");
    }
    return Body(std::make_shared<State>(State{state->document, value}));
}

std::string Body::needText(std::string_view name, std::size_t most) const {
    const auto given = text(name, most);
    if (!given || given->empty()) {
        refuse(name, "is missing");
    }
    return *given;
}

void Body::refuse(std::string_view name, std::string_view what) {
    throw http::HttpError(400, '"' + std::string(name) + "\" " + std::string(what) + '.');
}

}  // namespace kolvan::server::api
