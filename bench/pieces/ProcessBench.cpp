#include "basekit2/object_registry.h"
#include "basekit2/process/IPipeReaderCallback.h"
#include "basekit2/process/IProcess.h"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace {

using basekit2::ref_ptr_t;
using basekit2::result_t;
using basekit2::process::IPipeReaderCallback;
using basekit2::process::IProcess;

class CountingReader : public IPipeReaderCallback {
public:
    const std::string& get_type() const override { return basekit2::get_none_type(); }

    result_t onData(const char*, std::int32_t length) override {
        bytes += length;
        return result_t::no_error();
    }

    std::int64_t bytes = 0;
};

void run(const std::string& executable, const std::vector<std::string>& arguments) {
    const ref_ptr_t<IProcess> process = IProcess::create();
    const auto reader = basekit2::make_ref_counted<CountingReader>();
    (void)process->connectOutputStream(1, reader);
    (void)process->start(executable, basekit2::make_generic_iterator(arguments), /*environment=*/{},
                         /*workingDirectory=*/{}, /*reserved1=*/0, /*reserved2=*/0,
                         /*searchPath=*/1);
    (void)process->wait();
    benchmark::DoNotOptimize(reader->bytes);
}

// What a start costs must not grow with what the process holds in memory.
void spawn(benchmark::State& state) {
    const std::vector<char> ballast(static_cast<std::size_t>(state.range(0)) << 20U, 'x');
    benchmark::DoNotOptimize(ballast.data());
    for (auto _ : state) {
        run("true", {});
    }
}
BENCHMARK(spawn)->Name("Process/spawn, MiB in use")->Arg(1)->Arg(1024)->UseRealTime();

void read(benchmark::State& state) {
    const std::string bytes = std::to_string(state.range(0));
    for (auto _ : state) {
        run("head", {"-c", bytes, "/dev/zero"});
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(read)->Name("Process/read")->Arg(256 << 20)->UseRealTime();

}  // namespace
