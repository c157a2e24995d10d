#include "companions/check/ConfigurationFindings.h"

#include "basekit2/UniqueFd.h"
#include "companions/check/JsonOutline.h"
#include "companions/check/NearestWord.h"
#include "companions/check/TextPlace.h"
#include "main/Startup.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

namespace kolvan::check {

namespace {

struct Setting {
    const char* key;
    bool required;
};

constexpr std::array kSettings{
    Setting{"accessToken", true},
    Setting{"serverEndpoint", true},
    Setting{"serverCertificateName", false},
    Setting{"buildVersion", false},
    Setting{"x86TargetPackageArchiveName", true},
    Setting{"x64TargetPackageArchiveName", true},
};

std::vector<std::string> allKeys() {
    std::vector<std::string> keys;
    keys.reserve(kSettings.size());
    for (const Setting& setting : kSettings) {
        keys.emplace_back(setting.key);
    }
    return keys;
}

const char* nameOf(JsonKind kind) {
    switch (kind) {
        case JsonKind::Null:
            return "null";
        case JsonKind::Boolean:
            return "a truth value";
        case JsonKind::Number:
            return "a number";
        case JsonKind::Text:
            return "a text";
        case JsonKind::Object:
            return "an object";
        case JsonKind::Array:
            return "a list";
    }
    return "something else";
}

std::string quoted(const std::string& word) {
    return '"' + word + '"';
}

// What stands in the way of reading a file.
struct Obstacle {
    std::string text;      ///< empty: nothing
    bool readEnds = true;  ///< false: whoever reads the file may never come to an end
};

Obstacle obstacleTo(const std::string& file) {
    // Without waiting: opening a named pipe would wait for somebody who writes to it.
    const basekit2::UniqueFd opened(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!opened) {
        return {"The file cannot be opened: " + std::generic_category().message(errno) + "."};
    }
    struct stat status {};
    if (::fstat(opened.get(), &status) != 0) {
        return {"The file cannot be looked at: " + std::generic_category().message(errno) + "."};
    }
    if (S_ISDIR(status.st_mode)) {
        return {"This is a directory; a file is wanted."};
    }
    constexpr off_t kLargest = off_t{16} * 1024 * 1024;
    if (!S_ISREG(status.st_mode) || status.st_size > kLargest) {
        return {"This is no configuration: no ordinary file, or one of more than 16 MB.", false};
    }
    return {};
}

// The text of one configuration, and what is found in it.
class TextExamination {
public:
    TextExamination(const std::string& examinedFile, const std::string& wholeText)
        : file(examinedFile), text(wholeText), outline(outlineOf(wholeText)) {}

    Findings examine() {
        for (const JsonMistake& mistake : outline.mistakes) {
            add(mistake.severity, mistake.topic, mistake.offset, mistake.text);
        }
        if (outline.kind && outline.kind != JsonKind::Object) {
            add(Severity::Error, "wrong-type", text.find_first_not_of(" \t\r\n"),
                std::string("The file holds ") + nameOf(*outline.kind) +
                    "; the settings have to stand in one object, between { and }.");
        }
        for (auto member = outline.members.begin(); member != outline.members.end(); ++member) {
            const bool repeated =
                std::any_of(outline.members.begin(), member,
                            [&](const JsonMember& earlier) { return earlier.key == member->key; });
            if (repeated) {
                add(Severity::Warning, "repeated-key", member->keyOffset,
                    quoted(member->key) + " was set before, and the first one counts.");
            } else {
                examineMember(*member);
            }
        }
        if (outline.kind == JsonKind::Object) {
            reportMissing();
        }
        return std::move(findings);
    }

private:
    void add(Severity severity, const char* topic, std::size_t offset, std::string sentence) {
        findings.push_back({severity, topic, placeInText(file, text, offset), std::move(sentence)});
    }
    void add(Severity severity, const std::string& topic, std::size_t offset,
             std::string sentence) {
        add(severity, topic.c_str(), offset, std::move(sentence));
    }

    void examineMember(const JsonMember& member) {
        const auto* const setting =
            std::find_if(kSettings.begin(), kSettings.end(),
                         [&](const Setting& known) { return member.key == known.key; });
        if (setting == kSettings.end()) {
            reportUnknown(member);
        } else if (member.kind != JsonKind::Text) {
            add(Severity::Error, "wrong-type", member.keyOffset,
                quoted(member.key) + " is " + nameOf(member.kind) +
                    "; it has to be a text in double quotes, and the agent takes it for an empty "
                    "one.");
        } else {
            examineText(*setting, member);
        }
    }

    void examineText(const Setting& setting, const JsonMember& member) {
        constexpr std::string_view kWhiteSpace = " \t\r\n";
        const std::string& value = member.text;
        if (value.find('\0') != std::string::npos) {
            add(Severity::Warning, "nul", member.keyOffset,
                quoted(member.key) + " has a NUL character, and ends there for the agent.");
        }
        if (value.empty() || value.front() == '\0') {
            if (setting.required) {
                add(Severity::Error, "empty-setting", member.keyOffset,
                    quoted(member.key) + " is empty.");
            }
        } else if (kWhiteSpace.find(value.front()) != std::string_view::npos ||
                   kWhiteSpace.find(value.back()) != std::string_view::npos) {
            add(Severity::Warning, "white-space", member.keyOffset,
                quoted(member.key) +
                    " begins or ends with white space, which counts like every other character.");
        }
    }

    void reportUnknown(const JsonMember& member) {
        const std::string nearest = nearestWord(member.key, allKeys());
        add(Severity::Warning, "unknown-key", member.keyOffset,
            quoted(member.key) + " is no setting, and the agent ignores it." +
                (nearest.empty() ? "" : " Did you mean " + quoted(nearest) + "?"));
    }

    void reportMissing() {
        for (const Setting& setting : kSettings) {
            const bool found =
                std::any_of(outline.members.begin(), outline.members.end(),
                            [&](const JsonMember& member) { return member.key == setting.key; });
            if (setting.required && !found) {
                findings.push_back(
                    {Severity::Error, "missing-key", {file}, quoted(setting.key) + " is missing."});
            }
        }
    }

    const std::string& file;
    const std::string& text;
    const JsonOutline outline;
    Findings findings;
};

cagnt1::AgentConfiguration usableConfiguration(const std::string& text) {
    cagnt1::AgentConfiguration configuration = cagnt1::checkedConfiguration(text);
    // The agent's operations ask for these two, in this order, when they are made.
    if (configuration.x86TargetPackageArchiveName.empty()) {
        throw std::runtime_error("Undefined x86 target package name.");
    }
    if (configuration.x64TargetPackageArchiveName.empty()) {
        throw std::runtime_error("Undefined x64 target package name.");
    }
    return configuration;
}

}  // namespace

ExaminedConfiguration examineConfiguration(const std::string& file) {
    ExaminedConfiguration examined;
    if (const Obstacle obstacle = obstacleTo(file); !obstacle.text.empty()) {
        examined.findings.push_back({Severity::Error, "unreadable", {file}, obstacle.text});
        if (!obstacle.readEnds) {
            return examined;
        }
    }
    try {
        const std::string text = cagnt1::readConfigurationText(file);
        if (examined.findings.empty()) {
            examined.findings = TextExamination(file, text).examine();
        }
        examined.configuration = usableConfiguration(text);
    } catch (const std::runtime_error& error) {
        examined.findings.push_back(
            {Severity::Error,
             "no-start",
             {file},
             std::string("The agent does not start with this. It ends with: ") + error.what()});
    }
    return examined;
}

}  // namespace kolvan::check
