#include "tests/profiler/output/SampleProfile.h"

#include <cstddef>

namespace kolvan::profiler::test {

ProfileBuilder::ProfileBuilder() {
    profile.engine = "perf";
    profile.period = 1'000'000;
    profile.beginUnix = 1'700'000'000'000'000'000;
    profile.nanoseconds = 2'000'000'000;
}

ProfileBuilder& ProfileBuilder::module(const std::string& path, const std::string& buildId) {
    profile.modules.push_back({path, buildId, 0x1000, 0x9000, 0x400});
    return *this;
}

std::uint32_t ProfileBuilder::location(const std::vector<std::string>& names) {
    const auto position = static_cast<std::uint32_t>(profile.locations.size());
    Profile::Location& location = profile.locations.emplace_back();
    location.module = static_cast<std::uint32_t>(profile.modules.size() - 1);
    location.address = 0x1000 + std::uint64_t{position} * 0x10;
    for (const std::string& name : names) {
        const auto function = static_cast<std::uint32_t>(profile.functions.size());
        profile.functions.push_back({name, "_Z" + name, name + ".cpp"});
        location.lines.push_back({function, position + 1});
    }
    return position;
}

ProfileBuilder& ProfileBuilder::thread(pid_t process, pid_t id, const std::string& name,
                                       const std::string& processName) {
    profile.threads.push_back({process, id, name, processName});
    return *this;
}

ProfileBuilder& ProfileBuilder::sample(const std::vector<std::uint32_t>& stack,
                                       std::uint64_t milliseconds, std::uint32_t tenth,
                                       bool complete) {
    const auto thread = static_cast<std::uint32_t>(profile.threads.size() - 1);
    const auto number = static_cast<std::uint32_t>(profile.stacks.size());
    profile.stacks.push_back({{stack.rbegin(), stack.rend()}, complete});
    profile.samples.push_back({number, thread, tenth, milliseconds, milliseconds * 1'000'000});
    return *this;
}

Profile sampleProfile() {
    ProfileBuilder builder;
    builder.module("/opt/app/app", "00ff12");
    const auto start = builder.location({"_start"});
    const auto main = builder.location({"main"});
    const auto hash = builder.location({"mix", "hash"});  // mix is inlined into hash
    const auto fib = builder.location({"fib"});
    builder.module("/usr/lib/libplugin.so.1");
    const auto nameless = builder.location({});
    builder.module("[kernel]");
    const auto read = builder.location({"ksys_read"});
    builder.thread(100, 100, "app", "app")
        .sample({start, main, hash}, 600)
        .sample({start, main, hash}, 100, 3)
        .sample({start, main, fib, fib, fib}, 150, 3)
        .sample({start, main, nameless}, 50, 19)
        .thread(100, 101, "worker", "app")
        .sample({start, main, read}, 80)
        .thread(200, 200, "child", "child")
        .sample({hash}, 20, 7, false);
    return builder.profile;
}

Coverage sampleCoverage() {
    Coverage coverage;
    coverage.sampledNanoseconds = 1'000'000'000;
    coverage.accountedNanoseconds = 1'010'000'000;
    coverage.samples = 1000;
    coverage.lost = 2;
    coverage.incomplete = 20;
    coverage.unnamed = 50;
    coverage.limits = {"The kernel's part of the stacks is not shown to this user."};
    return coverage;
}

}  // namespace kolvan::profiler::test
