// Profiles as the collector writes them, from the file to what people look at.

#include "bench/pieces/MadeProfile.h"
#include "companions/server/profiles/FlameGraph.h"
#include "companions/server/profiles/ProfileReader.h"
#include "companions/server/profiles/Speedscope.h"
#include "companions/server/profiles/Top.h"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace {

namespace profiles = kolvan::server::profiles;

/// A file for all benchmarks of this size, removed at the end of the program.
class ProfileFile {
public:
    explicit ProfileFile(std::size_t samples) {
        std::string name = std::filesystem::temp_directory_path() / "kolvan-bench-XXXXXX";
        if (::mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("there is no room for a profile");
        }
        directory = name;
        kolvan::bench::writeMadeProfile(samples, path());
    }
    ProfileFile(const ProfileFile&) = delete;
    ProfileFile& operator=(const ProfileFile&) = delete;
    ~ProfileFile() {
        std::error_code error;
        std::filesystem::remove_all(directory, error);  // a temporary directory may keep it
    }

    std::string path() const { return directory / "profile.pb.gz"; }

private:
    std::filesystem::path directory;
};

const ProfileFile& fileOf(std::size_t samples) {
    static std::map<std::size_t, ProfileFile> files;
    return files.try_emplace(samples, samples).first->second;
}

const profiles::Sink kNowhere = [](std::string_view piece) { benchmark::DoNotOptimize(piece); };

void fileToFlameGraph(benchmark::State& state) {
    const ProfileFile& file = fileOf(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        const profiles::Profile profile = profiles::readProfileFile(file.path());
        profiles::writeFlameGraph(profile, {}, kNowhere);
        state.counters["nodes"] = static_cast<double>(profile.calls.nodes.size());
    }
}
BENCHMARK(fileToFlameGraph)->Name("Profile/file to flame graph")->Arg(100'000)->Arg(1'000'000);

template <typename View>
void view(benchmark::State& state, View write) {
    const profiles::Profile profile =
        profiles::readProfileFile(fileOf(static_cast<std::size_t>(state.range(0))).path());
    for (auto _ : state) {
        write(profile);
    }
}

void top(benchmark::State& state) {
    view(state,
         [](const profiles::Profile& profile) { profiles::writeTop(profile, {}, 100, kNowhere); });
}
BENCHMARK(top)->Name("Profile/top of one read")->Arg(1'000'000);

void flameGraph(benchmark::State& state) {
    view(state, [](const profiles::Profile& profile) {
        profiles::writeFlameGraph(profile, {}, kNowhere);
    });
}
BENCHMARK(flameGraph)->Name("Profile/flame graph of one read")->Arg(1'000'000);

void speedscope(benchmark::State& state) {
    view(state, [](const profiles::Profile& profile) {
        profiles::writeSpeedscope(profile, {}, "profile", kNowhere);
    });
}
BENCHMARK(speedscope)->Name("Profile/speedscope of one read")->Arg(1'000'000);

}  // namespace
