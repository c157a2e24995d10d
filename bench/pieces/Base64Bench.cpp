#include "agent/Base64.h"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <string>

namespace {

void encode(benchmark::State& state) {
    const std::string bytes(static_cast<std::size_t>(state.range(0)), 'x');
    for (auto _ : state) {
        benchmark::DoNotOptimize(cagnt1::encodeBase64(bytes));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(encode)->Name("Base64/encode")->Arg(80)->Arg(4096)->Arg(1 << 20)->Arg(16 << 20);

}  // namespace
