// Profiles as the collector writes them, from the file to what people look at.

#include "companions/profiler/output/Pprof.h"
#include "companions/server/profiles/FlameGraph.h"
#include "companions/server/profiles/ProfileReader.h"
#include "companions/server/profiles/Speedscope.h"
#include "companions/server/profiles/Top.h"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace {

namespace profiler = kolvan::profiler;
namespace profiles = kolvan::server::profiles;

constexpr std::uint32_t kFunctions = 5000;
constexpr std::uint32_t kPlacesEach = 8;  // from which a function calls, or where samples find it
constexpr std::uint32_t kThreads = 16;
constexpr std::uint32_t kTenths = 600;

/// Stacks of 8 to 40 calls. Each function calls eight others, the first one most of the time: the
/// tree of a million samples has 736,000 nodes.
profiler::Profile makeProfile(std::size_t samples) {
    profiler::Profile profile;
    profile.modules.push_back({"/opt/application/bin/application", "00ff12", 0x1000, 0x900000, 0});
    for (std::uint32_t function = 0; function < kFunctions; ++function) {
        const std::string name = "application::module::Class" + std::to_string(function / 10) +
                                 "::member" + std::to_string(function) + "(int)";
        profile.functions.push_back({name, "_Z" + name, "source/file.cpp"});
        for (std::uint32_t place = 0; place < kPlacesEach; ++place) {
            profile.locations.push_back(
                {0, 0x1000 + (function * kPlacesEach + place) * 16, {{function, place}}});
        }
    }
    for (std::uint32_t thread = 0; thread < kThreads; ++thread) {
        profile.threads.push_back({100, static_cast<pid_t>(100 + thread), "worker", "application"});
    }
    std::mt19937 random;  // always the same numbers
    std::map<std::vector<std::uint32_t>, std::uint32_t> stacks;
    for (std::size_t sample = 0; sample < samples; ++sample) {
        std::vector<std::uint32_t> stack;
        std::uint32_t function = 0;
        for (std::size_t depth = 8 + random() % 33; depth > 0; --depth) {
            std::uint32_t callee = 0;
            while (callee < kPlacesEach - 1 && random() % 16 == 0) {
                ++callee;
            }
            stack.insert(stack.begin(), function * kPlacesEach + callee);
            function = (function * kPlacesEach + callee + 1) % kFunctions;
        }
        const auto [place, isNew] =
            stacks.try_emplace(stack, static_cast<std::uint32_t>(profile.stacks.size()));
        if (isNew) {
            profile.stacks.push_back({std::move(stack), true});
        }
        profile.samples.push_back({place->second, static_cast<std::uint32_t>(random() % kThreads),
                                   static_cast<std::uint32_t>(sample * kTenths / samples), 1,
                                   1'000'000});
    }
    return profile;
}

/// A file for all benchmarks of this size, removed at the end of the program.
class ProfileFile {
public:
    explicit ProfileFile(std::size_t samples) {
        std::string name = std::filesystem::temp_directory_path() / "kolvan-bench-XXXXXX";
        if (::mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("there is no room for a profile");
        }
        directory = name;
        profiler::writePprof(makeProfile(samples), {}, path());
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
