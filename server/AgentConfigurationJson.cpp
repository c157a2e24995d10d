#include "server/AgentConfigurationJson.h"

#include "server/JsonText.h"

#include <array>

namespace cagnt1 {

namespace {

struct Setting {
    const char* key;
    std::string AgentConfiguration::*field;
};

constexpr std::array kSettings{
    Setting{"accessToken", &AgentConfiguration::accessToken},
    Setting{"serverEndpoint", &AgentConfiguration::serverEndpoint},
    Setting{"serverCertificateName", &AgentConfiguration::serverCertificateName},
    Setting{"buildVersion", &AgentConfiguration::buildVersion},
    Setting{"x86TargetPackageArchiveName", &AgentConfiguration::x86TargetPackageArchiveName},
    Setting{"x64TargetPackageArchiveName", &AgentConfiguration::x64TargetPackageArchiveName},
};

}  // namespace

AgentConfiguration parseConfiguration(const std::string& jsonText) {
    const JsonDocument document = parseJson(jsonText);
    AgentConfiguration configuration;
    for (const Setting& setting : kSettings) {
        if (const JsonValue* value = findMember(document, setting.key)) {
            configuration.*setting.field = textOf(*value);
        }
    }
    return configuration;
}

std::string serializeConfiguration(const AgentConfiguration& configuration) {
    std::string json;
    const char* separator = "{";
    for (const Setting& setting : kSettings) {
        json += separator;
        appendText(json, setting.key);
        json += ':';
        appendText(json, configuration.*setting.field);
        separator = ",";
    }
    json += '}';
    return json;
}

}  // namespace cagnt1
