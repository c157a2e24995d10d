#include "companions/server/http/Response.h"

#include <boost/beast/http/status.hpp>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace kolvan::server::http {
namespace {

void writeText(rapidjson::Writer<rapidjson::StringBuffer>& writer, std::string_view text) {
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

}  // namespace

Response textResponse(unsigned status, std::string type, std::string text) {
    Response response;
    response.status = status;
    response.fields.emplace_back("Content-Type", std::move(type));
    response.body = std::move(text);
    return response;
}

Response jsonResponse(std::string json, unsigned status) {
    return textResponse(status, "application/json", std::move(json));
}

Response noContentResponse() {
    Response response;
    response.status = 204;
    return response;
}

Response problemResponse(unsigned status, std::string_view detail) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartObject();
    writer.Key("title");
    writeText(writer, reasonPhrase(status));
    writer.Key("status");
    writer.Uint(status);
    writer.Key("detail");
    writeText(writer, detail);
    writer.EndObject();
    return textResponse(status, "application/problem+json",
                        std::string(buffer.GetString(), buffer.GetSize()));
}

std::string_view reasonPhrase(unsigned status) {
    const auto phrase =
        boost::beast::http::obsolete_reason(boost::beast::http::int_to_status(status));
    return {phrase.data(), phrase.size()};
}

std::string eventText(const ServerEvent& event) {
    std::string text;
    if (!event.id.empty()) {
        text.append("id: ").append(event.id).push_back('\n');
    }
    if (!event.name.empty()) {
        text.append("event: ").append(event.name).push_back('\n');
    }
    // A line end in the data begins a new "data:" line; a carriage return is one too.
    std::string_view rest = event.data;
    for (;;) {
        const std::size_t end = rest.find_first_of("\r\n");
        text.append("data: ").append(rest.substr(0, end)).push_back('\n');
        if (end == std::string_view::npos) {
            break;
        }
        rest.remove_prefix(end + (rest.substr(end, 2) == "\r\n" ? 2 : 1));
    }
    text.push_back('\n');
    return text;
}

Response eventsResponse(StreamBody events) {
    Response response;
    response.fields.emplace_back("Content-Type", "text/event-stream");
    // Proxies would gather the events otherwise.
    response.fields.emplace_back("X-Accel-Buffering", "no");
    response.body = std::move(events);
    return response;
}

}  // namespace kolvan::server::http
