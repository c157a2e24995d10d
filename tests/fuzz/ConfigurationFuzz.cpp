// The input is a configuration file.
#include "server/AgentConfigurationJson.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/fuzz/JsonOracle.h"

#include <array>
#include <optional>
#include <string>
#include <vector>

namespace {

using cagnt1::AgentConfiguration;
using namespace kolvan::fuzz;

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

std::string valueOf(const std::optional<Json>& file, const char* key) {
    const Json* value = file ? file->member(key) : nullptr;
    return value != nullptr ? value->asText() : std::string();
}

void checkAgainstOracle(const std::string& file, const AgentConfiguration& configuration) {
    try {
        const std::optional<Json> json = readJson(file);
        for (const Setting& setting : kSettings) {
            requireEqual(valueOf(json, setting.key), configuration.*setting.field, setting.key);
        }
    } catch (const Undecided&) {
        // Nothing to compare with.
    }
}

// Settings of any bytes, as pieces of the input, survive their way through a file, up to their NUL.
void checkRoundTrip(const std::string& input) {
    const std::vector<std::string> pieces = split(input, ',');
    AgentConfiguration written;
    AgentConfiguration expected;
    for (std::size_t index = 0; index < kSettings.size() && index < pieces.size(); ++index) {
        written.*kSettings[index].field = pieces[index];
        expected.*kSettings[index].field = upToNul(pieces[index]);
    }
    const std::string file = cagnt1::serializeConfiguration(written);
    require(cagnt1::parseConfiguration(file) == expected, "a configuration survives its file");
    checkAgainstOracle(file, expected);
    require(readJson(file)->members.size() == kSettings.size(), "a file has six settings");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const AgentConfiguration configuration = cagnt1::parseConfiguration(input);
    checkAgainstOracle(input, configuration);
    require(
        cagnt1::parseConfiguration(cagnt1::serializeConfiguration(configuration)) == configuration,
        "what has been read survives its file");
    checkRoundTrip(input);
    return 0;
}
