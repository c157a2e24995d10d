// The input is a message of pprof, which is compressed here: what a fuzzer changes in a gzip file
// only spoils its checksum. One that is none of pprof's is read as a file as well.
#include "companions/server/profiles/Collapsed.h"
#include "companions/server/profiles/Comparison.h"
#include "companions/server/profiles/FlameGraph.h"
#include "companions/server/profiles/ProfileReader.h"
#include "companions/server/profiles/Speedscope.h"
#include "companions/server/profiles/Top.h"
#include "tests/fuzz/Fuzz.h"

#include <rapidjson/document.h>
#include <zlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace {

using namespace kolvan::fuzz;
using namespace kolvan::server::profiles;

ProfileLimits limits() {
    ProfileLimits limits;
    limits.bytes = 1 << 20;
    limits.partBytes = 1 << 16;
    limits.samples = 1 << 12;
    limits.entries = 1 << 12;
    limits.calls = 1 << 14;
    return limits;
}

std::string gzip(const std::uint8_t* data, std::size_t size) {
    z_stream stream{};
    (void)::deflateInit2(&stream, Z_NO_COMPRESSION, Z_DEFLATED, 16 + MAX_WBITS, 8,
                         Z_DEFAULT_STRATEGY);  // fails for want of memory only
    std::string input(reinterpret_cast<const char*>(data), size);
    std::string result(::deflateBound(&stream, size), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(input.data());
    stream.avail_in = static_cast<uInt>(size);
    stream.next_out = reinterpret_cast<Bytef*>(result.data());
    stream.avail_out = static_cast<uInt>(result.size());
    (void)::deflate(&stream, Z_FINISH);  // there is room for all of it
    result.resize(stream.total_out);
    (void)::deflateEnd(&stream);  // complains of misuse only
    return result;
}

std::optional<Profile> read(std::string_view file) {
    try {
        return readProfile(
            [&file](char* buffer, std::size_t room) {
                const std::size_t count = file.copy(buffer, std::min<std::size_t>(room, 64));
                file.remove_prefix(count);
                return count;
            },
            limits());
    } catch (const UnreadableProfile& error) {
        require(std::string_view(error.what()).ends_with('.'), "a refusal is a sentence");
        return std::nullopt;
    }
}

std::string written(const std::function<void(const Sink&)>& write) {
    std::string all;
    write([&all](std::string_view piece) { all += piece; });
    return all;
}

rapidjson::Document jsonOf(const std::function<void(const Sink&)>& write) {
    const std::string text = written(write);
    rapidjson::Document document;
    document.Parse<rapidjson::kParseValidateEncodingFlag>(text.data(), text.size());
    require(!document.HasParseError(), "a view is JSON and UTF-8");
    return document;
}

void check(const Profile& profile, const Filter& filter) {
    const rapidjson::Document graph =
        jsonOf([&](const Sink& sink) { writeFlameGraph(profile, filter, sink); });
    const std::uint64_t total = graph["total"].GetUint64();
    const auto& parents = graph["nodes"]["parent"];
    std::uint64_t self = 0;
    for (rapidjson::SizeType node = 0; node < parents.Size(); ++node) {
        require(node == 0 || parents[node].GetUint() < node, "parents stand before their children");
        require(graph["nodes"]["total"][node].GetUint64() > 0 || node == 0, "no node is empty");
        self += graph["nodes"]["self"][node].GetUint64();
    }
    require(self == total, "what ended at the nodes is all there is");

    const Top top = findTop(profile, filter, profile.functions.size());
    std::uint64_t selfOfAll = 0;
    for (const Top::Function& function : top.functions) {
        selfOfAll += function.self;
        require(function.self <= function.total && function.total <= total,
                "no function counts more than there is");
    }
    require(top.total == total && selfOfAll == total, "the functions share all there is");
    (void)jsonOf([&](const Sink& sink) { writeTop(profile, filter, 10, sink); });

    const std::string lines =
        written([&](const Sink& sink) { writeCollapsed(profile, filter, sink); });
    std::uint64_t sum = 0;
    for (const std::string& line : split(lines, '\n')) {
        sum += line.empty() ? 0 : std::stoull(line.substr(line.rfind(' ') + 1));
    }
    require(sum == total, "the lines are all there is");

    const rapidjson::Document speedscope =
        jsonOf([&](const Sink& sink) { writeSpeedscope(profile, filter, "name", sink); });
    std::uint64_t ends = 0;
    for (const auto& thread : speedscope["profiles"].GetArray()) {
        ends += thread["endValue"].GetUint64();
    }
    require(ends == total, "the threads share all there is");
    const Comparison comparison = compare(profile, profile, filter);
    require(comparison.baseTotal == total && comparison.otherTotal == total,
            "a comparison leaves nothing out");
    (void)jsonOf([&](const Sink& sink) { writeComparison(comparison, sink); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silenceStreams();
    const std::optional<Profile> profile = read(gzip(data, size));
    if (!profile) {
        (void)read({reinterpret_cast<const char*>(data), size});
        return 0;
    }
    check(*profile, {});
    Filter filter;
    filter.sampleType = profile->types.front().name;
    filter.from = 100;
    if (!profile->threads.empty()) {
        filter.thread = profile->threads.front().id;
    }
    check(*profile, filter);
    return 0;
}
