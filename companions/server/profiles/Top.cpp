#include "companions/server/profiles/Top.h"

#include "companions/server/profiles/Weights.h"

#include <algorithm>
#include <tuple>

namespace kolvan::server::profiles {

namespace {

std::vector<Top::Thread> weighThreads(const Profile& profile, const Filter& filter) {
    const std::size_t type = typeOf(profile, filter);
    Filter everyThread = filter;
    everyThread.thread.reset();
    const std::vector<bool> admitted = admittedMoments(profile, everyThread);
    std::vector<Top::Thread> threads(profile.threads.size());
    for (std::uint32_t thread = 0; thread < threads.size(); ++thread) {
        threads[thread].thread = thread;
    }
    for (std::size_t index = 0; index < profile.samples.size(); ++index) {
        const std::uint32_t moment = profile.samples[index].moment;
        if (admitted[moment]) {
            threads[profile.moments[moment].thread].total +=
                profile.values[index * profile.types.size() + type];
        }
    }
    std::sort(threads.begin(), threads.end(),
              [](const Top::Thread& left, const Top::Thread& right) {
                  return std::tie(right.total, left.thread) < std::tie(left.total, right.thread);
              });
    return threads;
}

}  // namespace

Top findTop(const Profile& profile, const Filter& filter, std::size_t mostFunctions) {
    const Weights nodes = weigh(profile, filter);
    const Weights weights = weighFunctions(profile.calls, nodes, profile.functions.size());
    Top top;
    top.total = nodes.total.front();
    top.threads = weighThreads(profile, filter);
    for (std::uint32_t function = 0; function < profile.functions.size(); ++function) {
        if (weights.total[function] > 0) {
            top.functions.push_back({function, weights.self[function], weights.total[function]});
        }
    }
    const std::size_t count = std::min(mostFunctions, top.functions.size());
    std::partial_sort(
        top.functions.begin(), top.functions.begin() + static_cast<std::ptrdiff_t>(count),
        top.functions.end(), [](const Top::Function& left, const Top::Function& right) {
            return std::tie(right.self, right.total, left.function) <
                   std::tie(left.self, left.total, right.function);
        });
    top.functions.resize(count);
    return top;
}

void writeTop(const Profile& profile, const Filter& filter, std::size_t mostFunctions,
              const Sink& sink) {
    const Top top = findTop(profile, filter, mostFunctions);
    const Profile::SampleType& type = profile.types[typeOf(profile, filter)];
    Output output(sink);
    JsonWriter writer(output);
    writer.StartObject();
    writeText(writer, "sampleType", type.name);
    writeText(writer, "unit", type.unit);
    writeNumber(writer, "total", top.total);
    writer.Key("functions");
    writer.StartArray();
    for (const Top::Function& entry : top.functions) {
        writer.StartObject();
        writeText(writer, "name", profile.functions[entry.function].name);
        writeText(writer, "module", profile.functions[entry.function].module);
        writeNumber(writer, "self", entry.self);
        writeNumber(writer, "total", entry.total);
        writer.EndObject();
    }
    writer.EndArray();
    writer.Key("threads");
    writer.StartArray();
    for (const Top::Thread& entry : top.threads) {
        const Profile::Thread& thread = profile.threads[entry.thread];
        writer.StartObject();
        writer.Key("id");
        writer.Int64(thread.id);
        writeText(writer, "name", thread.name);
        writer.Key("process");
        writer.Int64(thread.process);
        writeText(writer, "processName", thread.processName);
        writeNumber(writer, "total", entry.total);
        writer.EndObject();
    }
    writer.EndArray();
    writer.EndObject();
    output.finish();
}

}  // namespace kolvan::server::profiles
