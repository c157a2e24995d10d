#include "agent/Base64.h"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <string>

namespace {

void encode(benchmark::State& state) {
    const std::string bytes(static_cast<std::size_t>(state.range(0)), 'x');
    for (auto _ : state) {
        cagnt1::Base64Encoder encoder;
        std::string text;
        encoder.append(text, bytes);
        encoder.finish(text);
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(encode)->Name("Base64/encode")->Arg(80)->Arg(4096)->Arg(1 << 20)->Arg(16 << 20);

}  // namespace
