#include "bench/pieces/MadeProfile.h"

#include "companions/profiler/output/Pprof.h"

#include <cstdint>
#include <map>
#include <random>
#include <utility>
#include <vector>

namespace kolvan::bench {

namespace {

constexpr std::uint32_t kFunctions = 5000;
constexpr std::uint32_t kPlacesEach = 8;  // from which a function calls, or where samples find it
constexpr std::uint32_t kThreads = 16;
constexpr std::uint32_t kTenths = 600;

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

}  // namespace

void writeMadeProfile(std::size_t samples, const std::string& path) {
    profiler::writePprof(makeProfile(samples), {}, path);
}

}  // namespace kolvan::bench
