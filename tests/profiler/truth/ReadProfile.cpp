// protoc prints a message as lines: "field: value", or "field {", the lines of the inner message
// and
// "}". KOLVAN_READERS is the directory with the description of the messages.

#include "tests/profiler/truth/ReadProfile.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>
#include <map>
#include <numeric>
#include <sstream>
#include <stdexcept>

namespace kolvan::test {

namespace {

/// A message as protoc prints it.
struct Message {
    std::multimap<std::string, std::string> values;
    std::multimap<std::string, Message> messages;

    std::int64_t number(const std::string& field) const {
        const auto found = values.find(field);
        return found == values.end() ? 0 : std::stoll(found->second);  // as proto3 leaves it out
    }
    std::vector<std::int64_t> numbers(const std::string& field) const {
        std::vector<std::int64_t> all;
        const auto [begin, end] = values.equal_range(field);
        std::transform(begin, end, std::back_inserter(all),
                       [](const auto& entry) { return std::stoll(entry.second); });
        return all;
    }
};

std::string outputOf(const std::string& command) {
    FILE* const pipe = ::popen(command.c_str(), "re");
    if (pipe == nullptr) {
        throw std::runtime_error("cannot run " + command);
    }
    std::string output;
    std::array<char, 65536> buffer{};
    while (const std::size_t length = std::fread(buffer.data(), 1, buffer.size(), pipe)) {
        output.append(buffer.data(), length);
    }
    if (::pclose(pipe) != 0) {
        throw std::runtime_error("failed: " + command);
    }
    return output;
}

Message parse(std::istream& lines) {
    Message message;
    std::string line;
    while (std::getline(lines, line)) {
        line.erase(0, line.find_first_not_of(' '));
        if (line == "}") {
            break;
        }
        if (line.ends_with(" {")) {
            message.messages.emplace(line.substr(0, line.size() - 2), parse(lines));
            continue;
        }
        const std::size_t colon = line.find(": ");
        if (colon == std::string::npos) {
            throw std::runtime_error("no field: " + line);
        }
        message.values.emplace(line.substr(0, colon), line.substr(colon + 2));
    }
    return message;
}

/// The text between the quotes. What protoc escapes is in no name that the tests ask for.
std::string unquoted(const std::string& text) {
    return text.substr(1, text.size() - 2);
}

/// Resolves the numbers by which the parts of a profile refer to each other.
class Names {
public:
    explicit Names(const Message& profile) {
        const auto [begin, end] = profile.values.equal_range("string_table");
        std::transform(begin, end, std::back_inserter(texts),
                       [](const auto& entry) { return unquoted(entry.second); });
        std::map<std::int64_t, std::string> functions;
        const auto [first, last] = profile.messages.equal_range("function");
        for (auto entry = first; entry != last; ++entry) {
            functions[entry->second.number("id")] = text(entry->second.number("name"));
        }
        const auto [from, to] = profile.messages.equal_range("location");
        for (auto entry = from; entry != to; ++entry) {
            auto& names = locations[entry->second.number("id")];
            const auto [line, lineEnd] = entry->second.messages.equal_range("line");
            std::transform(line, lineEnd, std::back_inserter(names), [&](const auto& one) {
                return functions.at(one.second.number("function_id"));
            });
        }
    }

    const std::string& text(std::int64_t number) const {
        return texts.at(static_cast<std::size_t>(number));
    }
    const std::vector<std::string>& location(std::int64_t id) const { return locations.at(id); }

private:
    std::vector<std::string> texts;
    std::map<std::int64_t, std::vector<std::string>> locations;
};

ReadProfile::Sample sampleOf(const Message& message, const Names& names) {
    ReadProfile::Sample sample;
    for (const std::int64_t location : message.numbers("location_id")) {
        const auto& functions = names.location(location);
        sample.functions.insert(sample.functions.end(), functions.begin(), functions.end());
        if (functions.empty()) {
            sample.functions.emplace_back();
        }
    }
    const auto values = message.numbers("value");
    sample.count = values.at(0);
    sample.nanoseconds = values.at(1);
    const auto [begin, end] = message.messages.equal_range("label");
    for (auto label = begin; label != end; ++label) {
        const std::string& key = names.text(label->second.number("key"));
        if (key == "thread") {
            sample.thread = names.text(label->second.number("str"));
        } else if (key == "pid") {
            sample.process = static_cast<pid_t>(label->second.number("num"));
        } else if (key == "tid") {
            sample.threadId = static_cast<pid_t>(label->second.number("num"));
        }
    }
    return sample;
}

}  // namespace

bool ReadProfile::Sample::isIn(std::string_view function) const {
    return !functions.empty() && functions.front().find(function) != std::string::npos;
}

bool ReadProfile::Sample::contains(std::string_view function) const {
    return std::any_of(functions.begin(), functions.end(), [&](const std::string& name) {
        return name.find(function) != std::string::npos;
    });
}

ReadProfile::ReadProfile(const std::string& path) {
    std::istringstream lines(
        outputOf("gzip --decompress --stdout '" + path + "' | protoc --proto_path='" +
                 KOLVAN_READERS "' --decode=perftools.profiles.Profile profile.proto"));
    const Message profile = parse(lines);
    const Names names(profile);
    const auto [begin, end] = profile.messages.equal_range("sample");
    std::transform(begin, end, std::back_inserter(samples),
                   [&](const auto& entry) { return sampleOf(entry.second, names); });
}

std::int64_t ReadProfile::nanoseconds(const Condition& condition) const {
    return std::accumulate(samples.begin(), samples.end(), std::int64_t{0},
                           [&](std::int64_t sum, const Sample& sample) {
                               return sum + (condition(sample) ? sample.nanoseconds : 0);
                           });
}

double ReadProfile::self(std::string_view function) const {
    const auto all = nanoseconds([](const Sample&) { return true; });
    const auto part = nanoseconds([&](const Sample& sample) { return sample.isIn(function); });
    return all == 0 ? 0 : static_cast<double>(part) / static_cast<double>(all);
}

double ReadProfile::total(std::string_view function) const {
    const auto all = nanoseconds([](const Sample&) { return true; });
    const auto part = nanoseconds([&](const Sample& sample) { return sample.contains(function); });
    return all == 0 ? 0 : static_cast<double>(part) / static_cast<double>(all);
}

}  // namespace kolvan::test
