#include "companions/profiler/output/Pprof.h"

#include "companions/profiler/output/GzipFile.h"
#include "companions/profiler/output/HotFunctions.h"
#include "companions/profiler/output/PprofMessage.h"
#include "companions/profiler/output/ProfileSummary.h"
#include "companions/profiler/output/TextEscape.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <utility>
#include <vector>

#include <protozero/pbf_builder.hpp>

namespace kolvan::profiler {

namespace {

using namespace pprof;  // the names of the fields
using protozero::pbf_builder;

constexpr std::int64_t kNoText = 0;  // the place of the empty text
constexpr std::size_t kPieceSize = std::size_t{64} * 1024;

/// Gives each text its place in the message's table of strings.
class StringTable {
public:
    StringTable() { (void)add(""); /* the format wants it first: kNoText */ }

    std::int64_t add(const std::string& text) {
        const auto [place, isNew] =
            places.try_emplace(text, static_cast<std::int64_t>(texts.size()));
        if (isNew) {
            texts.push_back(&place->first);
        }
        return place->second;
    }

    /// In the order of their places.
    const std::vector<const std::string*>& all() const noexcept { return texts; }

private:
    std::unordered_map<std::string, std::int64_t> places;
    std::vector<const std::string*> texts;  // keys of `places`, which stay where they are
};

/// What the lines of a module's locations know.
struct ModuleNames {
    bool seen = false;
    bool functions = true;
    bool files = true;
    bool lines = true;
    bool inlined = false;
};

std::vector<ModuleNames> namesOfModules(const Profile& profile) {
    std::vector<ModuleNames> result(profile.modules.size());
    for (const Profile::Location& location : profile.locations) {
        ModuleNames& names = result[location.module];
        names.seen = true;
        names.functions = names.functions && !location.lines.empty();
        names.inlined = names.inlined || location.lines.size() > 1;
        for (const Profile::Line& line : location.lines) {
            names.files = names.files && !profile.functions[line.function].file.empty();
            names.lines = names.lines && line.number != 0;
        }
    }
    return result;
}

/// Positions begin with 0, ids with 1: 0 is the id of nothing.
std::uint64_t idOf(std::size_t position) {
    return std::uint64_t{position} + 1;
}

/// Writes one message. It is compressed piece by piece, so that it is never in memory as a whole;
/// its parts may stand in any order, and the table of strings, which grows meanwhile, comes last.
class PprofWriter {
public:
    PprofWriter(const Profile& writtenProfile, GzipFile& gzipFile)
        : profile(writtenProfile),
          file(gzipFile),
          modules(namesOfModules(profile)),
          message(piece) {}

    void write(const Coverage& coverage) {
        writeHead();
        writeComments(coverage);
        for (const Profile::Thread& thread : profile.threads) {
            threadNames.push_back({text(thread.name), text(thread.processName)});
        }
        for (const Profile::Sample& sample : profile.samples) {
            writeSample(sample);
            flush(kPieceSize);
        }
        writeMappings();
        for (std::size_t index = 0; index < profile.locations.size(); ++index) {
            writeLocation(index);
            flush(kPieceSize);
        }
        for (std::size_t index = 0; index < profile.functions.size(); ++index) {
            writeFunction(index);
            flush(kPieceSize);
        }
        writeNamelessFunctions();
        for (const std::string* text : strings.all()) {
            message.add_string(ProfileField::StringTable, *text);
            flush(kPieceSize);
        }
        flush(1);
    }

private:
    /// Hands over what is ready, when it is at least `least` bytes.
    void flush(std::size_t least) {
        if (piece.size() >= least) {
            file.write(piece);
            piece.clear();
        }
    }

    std::int64_t text(const std::string& value) { return strings.add(validUtf8(value)); }

    void writeType(ProfileField field, const char* type, const char* unit) {
        pbf_builder<ValueTypeField> value(message, field);
        value.add_int64(ValueTypeField::Type, text(type));
        value.add_int64(ValueTypeField::Unit, text(unit));
    }

    void writeHead() {
        const std::string kind = kindWord(profile.kind);
        writeType(ProfileField::SampleType, "samples", "count");
        writeType(ProfileField::SampleType, kind.c_str(), "nanoseconds");
        writeType(ProfileField::PeriodType, kind.c_str(), "nanoseconds");
        message.add_int64(ProfileField::Period, static_cast<std::int64_t>(profile.period));
        message.add_int64(ProfileField::TimeNanos, profile.beginUnix);
        message.add_int64(ProfileField::DurationNanos,
                          static_cast<std::int64_t>(profile.nanoseconds));
    }

    void writeComments(const Coverage& coverage) {
        std::vector<std::int64_t> comments = {
            text("engine: " + profile.engine), text("kind: " + kindWord(profile.kind)),
            text("coverage: " + coverageText(profile.kind, coverage))};
        for (const std::string& limit : coverage.limits) {
            comments.push_back(text("limit: " + limit));
        }
        message.add_packed_int64(ProfileField::Comment, comments.begin(), comments.end());
    }

    void writeSample(const Profile::Sample& sample) {
        pbf_builder<SampleField> part(message, ProfileField::Sample);
        ids.clear();
        for (const std::uint32_t location : profile.stackOf(sample).locations) {
            ids.push_back(idOf(location));
        }
        part.add_packed_uint64(SampleField::LocationId, ids.begin(), ids.end());
        const std::array<std::int64_t, 2> values = {static_cast<std::int64_t>(sample.count),
                                                    static_cast<std::int64_t>(sample.nanoseconds)};
        part.add_packed_int64(SampleField::Value, values.begin(), values.end());
        const Profile::Thread& thread = profile.threads[sample.thread];
        const auto [threadName, processName] = threadNames[sample.thread];
        writeName(part, keys.thread, threadName);
        writeNumber(part, keys.tid, thread.id, kNoText);
        writeName(part, keys.process, processName);
        writeNumber(part, keys.pid, thread.process, kNoText);
        writeNumber(part, keys.time, std::int64_t{sample.tenth} * 100, keys.milliseconds);
    }

    /// A label with an empty text would be read as the number 0, so that there is none then.
    static void writeName(pbf_builder<SampleField>& sample, std::int64_t key, std::int64_t name) {
        if (name != kNoText) {
            pbf_builder<LabelField> label(sample, SampleField::Label);
            label.add_int64(LabelField::Key, key);
            label.add_int64(LabelField::Text, name);
        }
    }

    static void writeNumber(pbf_builder<SampleField>& sample, std::int64_t key, std::int64_t value,
                            std::int64_t unit) {
        pbf_builder<LabelField> label(sample, SampleField::Label);
        label.add_int64(LabelField::Key, key);
        label.add_int64(LabelField::Number, value);
        if (unit != kNoText) {
            label.add_int64(LabelField::NumberUnit, unit);
        }
    }

    void writeMappings() {
        for (std::size_t index = 0; index < modules.size(); ++index) {
            const ModuleNames& names = modules[index];
            const Profile::Module& module = profile.modules[index];
            // What is incomplete is reported as missing: a tool that can find names itself, where
            // the file is, looks for all of them then.
            const bool named = names.seen && names.functions;
            pbf_builder<MappingField> mapping(message, ProfileField::Mapping);
            mapping.add_uint64(MappingField::Id, idOf(index));
            mapping.add_uint64(MappingField::MemoryStart, module.begin);
            mapping.add_uint64(MappingField::MemoryLimit, module.end);
            mapping.add_uint64(MappingField::FileOffset, module.fileOffset);
            mapping.add_int64(MappingField::FileName, text(module.path));
            mapping.add_int64(MappingField::BuildId, text(module.buildId));
            mapping.add_bool(MappingField::HasFunctions, named);
            mapping.add_bool(MappingField::HasFileNames, named && names.files);
            mapping.add_bool(MappingField::HasLineNumbers, named && names.lines);
            mapping.add_bool(MappingField::HasInlineFrames, names.inlined);
        }
    }

    void writeLocation(std::size_t index) {
        const Profile::Location& location = profile.locations[index];
        pbf_builder<LocationField> part(message, ProfileField::Location);
        part.add_uint64(LocationField::Id, idOf(index));
        part.add_uint64(LocationField::MappingId, idOf(location.module));
        part.add_uint64(LocationField::Address, location.address);
        for (const Profile::Line& line : location.lines) {
            pbf_builder<LineField> call(part, LocationField::Line);
            call.add_uint64(LineField::FunctionId, idOf(line.function));
            call.add_int64(LineField::Number, line.number);
        }
        if (location.lines.empty()) {
            pbf_builder<LineField> call(part, LocationField::Line);
            call.add_uint64(LineField::FunctionId, namelessId(location.module));
        }
    }

    /// Some viewers leave out addresses without a function and show their time as the caller's. So
    /// those of a module share one, whose id follows those of the functions with names.
    std::uint64_t namelessId(std::size_t module) const {
        return idOf(profile.functions.size() + module);
    }

    void writeNamelessFunctions() {
        for (std::size_t index = 0; index < modules.size(); ++index) {
            if (modules[index].seen && !modules[index].functions) {
                const std::int64_t name = text(namelessIn(profile.modules[index].path));
                pbf_builder<FunctionField> part(message, ProfileField::Function);
                part.add_uint64(FunctionField::Id, namelessId(index));
                part.add_int64(FunctionField::Name, name);
                part.add_int64(FunctionField::SystemName, name);
            }
        }
    }

    void writeFunction(std::size_t index) {
        const Profile::Function& function = profile.functions[index];
        pbf_builder<FunctionField> part(message, ProfileField::Function);
        part.add_uint64(FunctionField::Id, idOf(index));
        part.add_int64(FunctionField::Name, text(function.name));
        part.add_int64(FunctionField::SystemName, text(function.systemName));
        part.add_int64(FunctionField::File, text(function.file));
    }

    const Profile& profile;
    GzipFile& file;
    const std::vector<ModuleNames> modules;  // by their positions
    std::string piece;
    pbf_builder<ProfileField> message;  // appends to `piece`
    StringTable strings;
    std::vector<std::uint64_t> ids;

    /// Texts of the labels, looked up once and not for every sample.
    struct LabelTexts {
        explicit LabelTexts(StringTable& strings)
            : thread(strings.add("thread")),
              tid(strings.add("tid")),
              process(strings.add("process")),
              pid(strings.add("pid")),
              time(strings.add("time")),
              milliseconds(strings.add("milliseconds")) {}

        const std::int64_t thread;
        const std::int64_t tid;
        const std::int64_t process;
        const std::int64_t pid;
        const std::int64_t time;
        const std::int64_t milliseconds;
    };
    const LabelTexts keys{strings};
    std::vector<std::pair<std::int64_t, std::int64_t>> threadNames;  // own, and of the process
};

}  // namespace

void writePprof(const Profile& profile, const Coverage& coverage, const std::string& path) {
    GzipFile file(path);
    PprofWriter(profile, file).write(coverage);
    file.close();
}

}  // namespace kolvan::profiler
