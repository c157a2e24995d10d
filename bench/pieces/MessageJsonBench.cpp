#include "server/MessageJson.h"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace {

void write(benchmark::State& state) {
    const cagnt1::Message message{
        "collector:stdout",
        {{"accessToken", "0123456789abcdef"},
         {"agentUuid", "01234567-89ab-4def-8123-456789abcdef"},
         {"id", "1"},
         {"message", std::string(static_cast<std::size_t>(state.range(0)), 'x')},
         {"size", std::to_string(state.range(0))}}};
    for (auto _ : state) {
        benchmark::DoNotOptimize(cagnt1::messageToJson(message));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(write)->Name("MessageJson/write")->Arg(0)->Arg(4096)->Arg(1 << 20)->Arg(16 << 20);

void read(benchmark::State& state) {
    const std::vector<cagnt1::Message> messages(
        static_cast<std::size_t>(state.range(0)),
        {"collector:execute", {{"id", "1"}, {"args", "--one --two three"}}});
    const std::string json = cagnt1::messagesToJson(messages);
    for (auto _ : state) {
        benchmark::DoNotOptimize(cagnt1::messagesFromJson(json));
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(json.size()));
}
BENCHMARK(read)->Name("MessageJson/read")->Arg(0)->Arg(1)->Arg(256);

}  // namespace
