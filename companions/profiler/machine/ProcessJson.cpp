#include "companions/profiler/machine/ProcessJson.h"

#include "companions/profiler/output/TextEscape.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace kolvan::profiler {

namespace {

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

const char* wordOf(Access::Engine engine) {
    switch (engine) {
        case Access::Engine::Perf:
            return "perf";
        case Access::Engine::Ptrace:
            return "ptrace";
        case Access::Engine::None:
            break;
    }
    return "none";
}

void writeText(Writer& writer, const char* key, const std::string& text) {
    const std::string valid = validUtf8(text);
    writer.Key(key);
    writer.String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
}

std::string object(const ProcessEntry& process) {
    rapidjson::StringBuffer buffer;
    Writer writer(buffer);
    const std::string cpu = decimalText(process.cpu, 1);
    writer.StartObject();
    writer.Key("pid");
    writer.Int(process.pid);
    writeText(writer, "user", process.user);
    writeText(writer, "command", process.command);
    writer.Key("cpu");
    writer.RawValue(cpu.data(), cpu.size(), rapidjson::kNumberType);
    writer.Key("threads");
    writer.Uint64(process.threads);
    writer.Key("profilable");
    writer.Bool(process.access.engine != Access::Engine::None);
    writeText(writer, "engine", wordOf(process.access.engine));
    writeText(writer, "reason", process.access.reason);
    writeText(writer, "help", process.access.help);
    writer.EndObject();
    return buffer.GetString();
}

}  // namespace

std::string processJson(const std::vector<ProcessEntry>& processes) {
    std::string text = "[";
    for (const ProcessEntry& process : processes) {
        text += (text.size() == 1 ? "\n" : ",\n") + object(process);
    }
    return text + "\n]\n";
}

}  // namespace kolvan::profiler
