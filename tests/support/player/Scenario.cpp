#include "tests/support/player/Scenario.h"

#include <charconv>
#include <cstdlib>
#include <map>
#include <set>
#include <stdexcept>
#include <string_view>

namespace kolvan::test {
namespace {

constexpr std::string_view kBlanks = " \t\r";

std::string_view trimmed(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

/// Takes the first word off a text, with the one blank that follows it.
std::string takeWord(std::string_view& text) {
    const std::size_t end = text.find(' ');
    const std::string word(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return word;
}

class ScenarioReader {
public:
    ScenarioReader(std::istream& input, const std::string& name, const Variables& variables)
        : input(input), name(name), variables(variables) {}

    std::vector<ScenarioStep> read() {
        std::string line;
        while (nextLine(line)) {
            const std::string_view text = trimmed(line);
            if (!text.empty() && text.front() != '#') {
                steps.push_back(readStep(text));
            }
        }
        if (steps.empty()) {
            refuse("the scenario has no step");
        }
        return std::move(steps);
    }

private:
    using StepReader = void (ScenarioReader::*)(ScenarioStep& step, std::string_view rest);

    struct Verb {
        ScenarioStep::Action action;
        StepReader readRest;
        bool sends;
    };

    static const std::map<std::string, Verb>& verbs();

    [[noreturn]] void refuse(const std::string& problem) const {
        throw std::runtime_error(name + ":" + std::to_string(lineNumber) + ": " + problem);
    }

    bool nextLine(std::string& line) {
        if (!std::getline(input, line)) {
            return false;
        }
        ++lineNumber;
        return true;
    }

    ScenarioStep readStep(std::string_view text) {
        ScenarioStep step;
        step.line = lineNumber;
        step.text = text;
        const std::string replaced = replaceVariables(text);
        std::string_view rest = replaced;
        const std::string word = takeWord(rest);
        const auto verb = verbs().find(word);
        if (verb == verbs().end()) {
            refuse("'" + word + "' is no step");
        }
        if (verb->second.sends && stopped) {
            refuse("nothing can be sent after \"stop\"");
        }
        step.action = verb->second.action;
        (this->*verb->second.readRest)(step, rest);
        stopped = stopped || step.action == ScenarioStep::Action::Stop;
        return step;
    }

    void readNothing(ScenarioStep& /*step*/, std::string_view rest) {
        if (!rest.empty()) {
            refuse("nothing may follow here: '" + std::string(rest) + "'");
        }
    }

    void readExecute(ScenarioStep& step, std::string_view rest) {
        takeNewId(step, rest);
        step.argument = rest;
    }

    void readCommand(ScenarioStep& step, std::string_view rest) {
        takeNewId(step, rest);
        step.argument = rest;
        if (step.argument.empty()) {
            refuse("the command is missing");
        }
    }

    void readStart(ScenarioStep& step, std::string_view rest) {
        takeNewId(step, rest);
        step.argument = takeWord(rest);
        if (step.argument.empty() || !rest.starts_with("<<") || rest.size() == 2) {
            refuse("expected: start ID DIRECTORY <<END");
        }
        readBlock(step, std::string(rest.substr(2)));
    }

    void readBlock(ScenarioStep& step, const std::string& end) {
        const std::size_t begin = lineNumber;
        std::string line;
        bool first = true;
        while (nextLine(line)) {
            if (trimmed(line) == end) {
                return;
            }
            // Between the lines only: the agent would take a line end after the last one for one
            // more, empty, option.
            step.options += (first ? "" : "\n") + replaceVariables(line);
            first = false;
        }
        lineNumber = begin;
        refuse("the line '" + end + "' that ends the options is missing");
    }

    void readWaitFinish(ScenarioStep& step, std::string_view rest) {
        takeKnownId(step, rest);
        if (rest.empty()) {
            return;
        }
        if (rest == "error") {
            step.end = ScenarioStep::End::Error;
            return;
        }
        step.end = ScenarioStep::End::Code;
        const auto [stop, error] =
            std::from_chars(rest.data(), rest.data() + rest.size(), step.code);
        if (error != std::errc() || stop != rest.data() + rest.size()) {
            refuse("'" + std::string(rest) + "' is no exit code");
        }
    }

    void readWaitOutput(ScenarioStep& step, std::string_view rest) {
        takeKnownId(step, rest);
        const std::string channel = takeWord(rest);
        const auto known = channelNamed(channel);
        if (!known) {
            refuse("'" + channel + "' is no channel; there are feedback, stdout and stderr");
        }
        step.channel = *known;
        if (rest.size() < 3 || rest.front() != '"' || rest.back() != '"') {
            refuse("expected a text in double quotes");
        }
        step.argument = rest.substr(1, rest.size() - 2);
    }

    void readWaitUpload(ScenarioStep& step, std::string_view rest) {
        step.argument = rest;
        if (step.argument.empty()) {
            refuse("the directory is missing");
        }
    }

    void takeNewId(ScenarioStep& step, std::string_view& rest) {
        step.id = takeWord(rest);
        if (step.id.empty()) {
            refuse("the id of the operation is missing");
        }
        if (!ids.insert(step.id).second) {
            refuse("the id '" + step.id + "' is used already");
        }
    }

    void takeKnownId(ScenarioStep& step, std::string_view& rest) {
        step.id = takeWord(rest);
        if (ids.count(step.id) == 0) {
            refuse("no step before has the id '" + step.id + "'");
        }
    }

    std::string replaceVariables(std::string_view text) const {
        std::string replaced;
        while (true) {
            const std::size_t begin = text.find("${");
            replaced += text.substr(0, begin);
            if (begin == std::string_view::npos) {
                return replaced;
            }
            const std::size_t end = text.find('}', begin);
            if (end == std::string_view::npos) {
                refuse("a '${' without '}'");
            }
            const std::string variable(text.substr(begin + 2, end - begin - 2));
            const auto value = variables(variable);
            if (!value) {
                refuse("the variable '" + variable + "' has no value");
            }
            replaced += *value;
            text.remove_prefix(end + 1);
        }
    }

    std::istream& input;
    const std::string& name;
    const Variables& variables;
    std::vector<ScenarioStep> steps;
    std::set<std::string> ids;
    std::size_t lineNumber = 0;
    bool stopped = false;
};

const std::map<std::string, ScenarioReader::Verb>& ScenarioReader::verbs() {
    using Action = ScenarioStep::Action;
    static const std::map<std::string, Verb> table = {
        {"execute", {Action::Execute, &ScenarioReader::readExecute, true}},
        {"start", {Action::Start, &ScenarioReader::readStart, true}},
        {"command", {Action::Command, &ScenarioReader::readCommand, true}},
        {"cancel", {Action::Cancel, &ScenarioReader::readNothing, true}},
        {"stop", {Action::Stop, &ScenarioReader::readNothing, true}},
        {"wait-connected", {Action::WaitConnected, &ScenarioReader::readNothing, false}},
        {"wait-finish", {Action::WaitFinish, &ScenarioReader::readWaitFinish, false}},
        {"wait-output", {Action::WaitOutput, &ScenarioReader::readWaitOutput, false}},
        {"wait-cancelled", {Action::WaitCancelled, &ScenarioReader::readNothing, false}},
        {"wait-upload", {Action::WaitUpload, &ScenarioReader::readWaitUpload, false}},
    };
    return table;
}

}  // namespace

Variables environmentVariables() {
    return [](const std::string& name) -> std::optional<std::string> {
        const char* const value = std::getenv(name.c_str());
        return value == nullptr ? std::nullopt : std::optional<std::string>(value);
    };
}

std::vector<ScenarioStep> readScenario(std::istream& input, const std::string& name,
                                       const Variables& variables) {
    return ScenarioReader(input, name, variables).read();
}

}  // namespace kolvan::test
