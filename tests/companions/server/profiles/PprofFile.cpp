#include "tests/companions/server/profiles/PprofFile.h"

#include <zlib.h>

#include <algorithm>
#include <sstream>
#include <utility>

#include <protozero/pbf_builder.hpp>

namespace kolvan::server::profiles::test {

namespace {

/// Of the numbers of fields, where one means many things, only protozero's type is wanted.
enum class Field : protozero::pbf_tag_type {};

constexpr Field field(protozero::pbf_tag_type number) {
    return static_cast<Field>(number);
}

using Builder = protozero::pbf_builder<Field>;

class Texts {
public:
    std::int64_t operator[](const std::string& text) {
        const auto place = std::find(texts.begin(), texts.end(), text);
        if (place == texts.end()) {
            texts.push_back(text);
            return static_cast<std::int64_t>(texts.size() - 1);
        }
        return place - texts.begin();
    }

    std::vector<std::string> texts = {""};
};

}  // namespace

PprofFile& PprofFile::type(const std::string& name, const std::string& unit) {
    types.emplace_back(name, unit);
    return *this;
}

PprofFile& PprofFile::thread(std::int64_t process, std::int64_t id, const std::string& name,
                             const std::string& processName) {
    threadLabels = {{"tid", "", id}, {"pid", "", process}};
    if (!name.empty()) {
        threadLabels.push_back({"thread", name});
    }
    if (!processName.empty()) {
        threadLabels.push_back({"process", processName});
    }
    timeLabels.clear();
    return *this;
}

PprofFile& PprofFile::at(std::int64_t milliseconds) {
    timeLabels = {{"time", "", milliseconds}};
    return *this;
}

PprofFile& PprofFile::sample(const std::string& stack, const std::vector<std::int64_t>& values) {
    Sample& sample = samples.emplace_back();
    std::istringstream names(stack);
    for (std::string name; std::getline(names, name, ';');) {
        const std::size_t at = name.find('@');
        const std::string module = at == std::string::npos ? "/opt/app" : name.substr(at + 1);
        const auto location =
            locations.try_emplace({name.substr(0, at), module}, locations.size() + 1).first;
        sample.locations.insert(sample.locations.begin(), location->second);
    }
    sample.values = values;
    sample.labels = threadLabels;
    sample.labels.insert(sample.labels.end(), timeLabels.begin(), timeLabels.end());
    return *this;
}

std::string PprofFile::message() const {
    std::string bytes;
    Builder message(bytes);
    Texts texts;
    auto usedTypes = types;
    if (usedTypes.empty()) {
        usedTypes = {{"samples", "count"}, {"cpu", "nanoseconds"}};
    }
    for (const auto& [name, unit] : usedTypes) {
        Builder part(message, field(1));
        part.add_int64(field(1), texts[name]);
        part.add_int64(field(2), texts[unit]);
    }
    for (const Sample& sample : samples) {
        Builder part(message, field(2));
        part.add_packed_uint64(field(1), sample.locations.begin(), sample.locations.end());
        part.add_packed_int64(field(2), sample.values.begin(), sample.values.end());
        for (const Label& one : sample.labels) {
            Builder label(part, field(3));
            label.add_int64(field(1), texts[one.key]);
            label.add_int64(field(2), texts[one.text]);
            label.add_int64(field(3), one.number);
        }
    }
    for (const auto& [function, id] : locations) {
        const auto& [name, path] = function;
        Builder mapping(message, field(3));
        mapping.add_uint64(field(1), id);
        mapping.add_int64(field(5), texts[path]);
    }
    for (const auto& [function, id] : locations) {
        Builder location(message, field(4));
        location.add_uint64(field(1), id);
        location.add_uint64(field(2), id);
        Builder line(location, field(4));
        line.add_uint64(field(1), id);
    }
    for (const auto& [function, id] : locations) {
        Builder part(message, field(5));
        part.add_uint64(field(1), id);
        part.add_int64(field(2), texts[function.first]);
    }
    for (const std::string& text : texts.texts) {
        message.add_string(field(6), text);
    }
    return bytes;
}

std::string PprofFile::file() const {
    return gzip(message());
}

Profile PprofFile::read() const {
    return readProfile(pieces(file()));
}

std::string gzip(std::string_view bytes) {
    z_stream stream{};
    (void)::deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 16 + MAX_WBITS, 8,
                         Z_DEFAULT_STRATEGY);  // fails for want of memory only
    std::string result(::deflateBound(&stream, bytes.size()), '\0');
    std::string input(bytes);
    stream.next_in = reinterpret_cast<Bytef*>(input.data());
    stream.avail_in = static_cast<uInt>(input.size());
    stream.next_out = reinterpret_cast<Bytef*>(result.data());
    stream.avail_out = static_cast<uInt>(result.size());
    (void)::deflate(&stream, Z_FINISH);  // there is room for all of it
    result.resize(stream.total_out);
    (void)::deflateEnd(&stream);  // complains of misuse only
    return result;
}

ByteSource pieces(std::string bytes, std::size_t size) {
    return [bytes = std::move(bytes), size, position = std::size_t{0}](char* buffer,
                                                                       std::size_t room) mutable {
        const std::size_t count = bytes.copy(buffer, std::min(size, room), position);
        position += count;
        return count;
    };
}

std::string written(const std::function<void(const Sink&)>& write) {
    std::string all;
    write([&all](std::string_view piece) { all += piece; });
    return all;
}

}  // namespace kolvan::server::profiles::test
