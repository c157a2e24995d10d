#include "companions/server/api/MetricsText.h"

#include "companions/server/base/Utf8.h"

namespace kolvan::server::api {

namespace {

std::string escaped(std::string_view value) {
    std::string text;
    for (const char character : validUtf8(value)) {
        switch (character) {
            case '\\':
                text += "\\\\";
                break;
            case '"':
                text += "\\\"";
                break;
            case '\n':
                text += "\\n";
                break;
            default:
                text += character;
        }
    }
    return text;
}

}  // namespace

void MetricsText::begin(std::string_view name, Kind kind, std::string_view help) {
    figure = name;
    content += "# HELP " + figure + ' ' + std::string(help) + '\n';
    content += "# TYPE " + figure + (kind == Kind::Gauge ? " gauge\n" : " counter\n");
}

void MetricsText::sample(std::uint64_t value, Labels labels) {
    content += figure;
    char before = '{';
    for (const auto& [name, label] : labels) {
        content.append(1, before).append(name).append("=\"").append(escaped(label)) += '"';
        before = ',';
    }
    if (labels.size() != 0) {
        content += '}';
    }
    content += ' ' + std::to_string(value) + '\n';
}

}  // namespace kolvan::server::api
