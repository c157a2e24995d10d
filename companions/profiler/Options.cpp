#include "companions/profiler/Options.h"

#include "companions/profiler/base/ExitCode.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <fstream>
#include <iterator>
#include <limits>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

namespace kolvan::profiler {

namespace {

constexpr long long kLargestPid = 4194304;   // the kernel's own limit
constexpr double kLongestDuration = 1e6;     // seconds; more than eleven days
constexpr unsigned kProfileFrequency = 999;  // no multiple of anything that beats in a program
constexpr unsigned kTimelineFrequency = 20;
constexpr std::size_t kLongestName = 200;  // leaves room for the ending in a file name
constexpr std::size_t kLargestOptionFile = std::size_t{1024} * 1024;

[[noreturn]] void refuse(const std::string& text) {
    throw Failure(ExitCode::Usage, text);
}

[[noreturn]] void refuseValue(std::string_view option, std::string_view value,
                              const std::string& expected) {
    refuse("option " + std::string(option) + ": '" + std::string(value) + "' is not " + expected);
}

long long parseNumber(std::string_view option, const std::string& value, long long least,
                      long long most) {
    long long number = 0;
    const char* const end = value.data() + value.size();
    const auto [stop, error] = std::from_chars(value.data(), end, number);
    if (error != std::errc() || stop != end || number < least || number > most) {
        refuseValue(option, value,
                    "a number from " + std::to_string(least) + " to " + std::to_string(most));
    }
    return number;
}

std::chrono::nanoseconds parseSeconds(std::string_view option, const std::string& value) {
    double seconds = 0;
    const char* const end = value.data() + value.size();
    const auto [stop, error] =
        std::from_chars(value.data(), end, seconds, std::chars_format::fixed);
    const std::string_view unit(stop, static_cast<std::size_t>(end - stop));
    const double factor = unit.empty() || unit == "s"    ? 1
                          : unit == "ms"                 ? 0.001
                          : unit == "m" || unit == "min" ? 60
                          : unit == "h"                  ? 3600
                                                         : 0;
    // Comparisons with a NaN are false, so it is refused together with what is out of range.
    const bool inRange = seconds * factor >= 0.001 && seconds * factor <= kLongestDuration;
    if (error != std::errc() || !inRange) {
        refuseValue(option, value,
                    "a time from 0.001 to 1000000 seconds, as in 10, 10s, 500ms, 5m or 1h");
    }
    return std::chrono::nanoseconds(std::llround(seconds * factor * 1e9));
}

std::string readOptionFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string text(kLargestOptionFile + 1, '\0');
    if (!file.is_open()) {
        refuse("option --option-file: cannot open '" + path + "'");
    }
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (file.bad()) {
        refuse("option --option-file: cannot read '" + path + "'");
    }
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > kLargestOptionFile) {
        refuse("option --option-file: '" + path + "' is larger than 1 MiB");
    }
    return text;
}

/// Walks argument lists from left to right; a later option overrides an earlier one.
class OptionParser {
public:
    void parse(const std::vector<std::string>& arguments, bool fromFile) {
        for (std::size_t index = 0; index < arguments.size();) {
            const auto split = splitAtSign(arguments[index++]);
            const std::string& option = split.first;
            const std::optional<std::string>& joined = split.second;
            if (option == "--") {
                options.command.assign(arguments.begin() + static_cast<std::ptrdiff_t>(index),
                                       arguments.end());
                if (options.command.empty()) {
                    refuse("option --: a command is missing");
                }
                return;
            }
            if (takeFlag(option)) {
                if (joined) {
                    refuse("option " + option + ": takes no value");
                }
                continue;
            }
            const auto entry = std::find_if(kValued.begin(), kValued.end(),
                                            [&](const Valued& one) { return one.name == option; });
            if (entry == kValued.end()) {
                refuseUnknown(option);
            }
            if (fromFile && option == "--option-file") {
                refuse("option --option-file: an option file cannot name another one");
            }
            if (!joined && index == arguments.size()) {
                refuse("option " + option + ": a value is missing");
            }
            (this->*entry->take)(joined ? *joined : arguments[index++]);
        }
    }

    Options finish() {
        if (showHelp || showVersion) {
            options.mode = showHelp ? Options::Mode::Help : Options::Mode::Version;
            return options;
        }
        if (listProcesses || check) {
            options.mode = check ? Options::Mode::Check : Options::Mode::Processes;
            return options;
        }
        if (options.resultDirectory.empty()) {
            refuse("option -r: a result directory is needed");
        }
        const bool hasTarget = options.pid.has_value() || !options.command.empty();
        if (!options.controlCommand.empty()) {
            if (hasTarget) {
                refuse("option --command: cannot be combined with --pid or a command to start");
            }
            options.mode = Options::Mode::Command;
            return options;
        }
        if (!hasTarget) {
            refuse("option --pid: give either --pid or, after --, a command to start");
        }
        if (options.pid.has_value() && !options.command.empty()) {
            refuse("option --pid: cannot be combined with a command to start");
        }
        options.frequency = frequency.value_or(
            options.profile == Options::Profile::None ? kTimelineFrequency : kProfileFrequency);
        return options;
    }

private:
    struct Valued {
        std::string_view name;
        void (OptionParser::*take)(const std::string& value);
    };

    /// "--option=value" as option and value; only what begins like an option can be one.
    static std::pair<std::string, std::optional<std::string>> splitAtSign(
        const std::string& argument) {
        const std::size_t sign = argument.find('=');
        if (!argument.starts_with("--") || sign == std::string::npos) {
            return {argument, std::nullopt};
        }
        return {argument.substr(0, sign), argument.substr(sign + 1)};
    }

    bool takeFlag(const std::string& option) {
        struct Flag {
            std::string_view name;
            bool& flag;
            bool value;
        };
        const std::array<Flag, 7> flags = {{{"--help", showHelp, true},
                                            {"-h", showHelp, true},
                                            {"--version", showVersion, true},
                                            {"--list-processes", listProcesses, true},
                                            {"--check", check, true},
                                            {"--no-children", options.children, false},
                                            {"--inlined", options.inlined, true}}};
        const auto* const entry = std::find_if(flags.begin(), flags.end(),
                                               [&](const Flag& one) { return one.name == option; });
        if (entry == flags.end()) {
            return false;
        }
        entry->flag = entry->value;
        return true;
    }

    [[noreturn]] static void refuseUnknown(const std::string& option) {
        if (option.starts_with('-')) {
            refuse("option " + option + ": unknown");
        }
        refuse("argument '" + option + "': unexpected; a command to start follows --");
    }

    void takeResultDirectory(const std::string& value) {
        if (value.empty()) {
            refuse("option -r: the directory's name is empty");
        }
        options.resultDirectory = value;
    }
    void takeOptionFile(const std::string& value) {
        parse(splitOptionLines(readOptionFile(value), value), /*fromFile=*/true);
    }
    void takePid(const std::string& value) {
        options.pid = static_cast<pid_t>(parseNumber("--pid", value, 1, kLargestPid));
    }
    void takeFrequency(const std::string& value) {
        frequency = static_cast<unsigned>(parseNumber("--frequency", value, 1, 10'000));
    }
    void takeProfile(const std::string& value) {
        options.profile = choose<Options::Profile>("--profile", value,
                                                   {{"cpu", Options::Profile::Cpu},
                                                    {"wait", Options::Profile::Wait},
                                                    {"none", Options::Profile::None}});
    }
    void takeEngine(const std::string& value) {
        options.engine = choose<EngineChoice>("--engine", value,
                                              {{"auto", EngineChoice::Automatic},
                                               {"perf", EngineChoice::Perf},
                                               {"ptrace", EngineChoice::Ptrace}});
    }
    template <typename Value>
    static Value choose(std::string_view option, const std::string& value,
                        const std::vector<std::pair<std::string_view, Value>>& choices) {
        std::string words;
        for (const auto& [word, choice] : choices) {
            if (word == value) {
                return choice;
            }
            words += (words.empty() ? "" : ", ") + std::string(word);
        }
        refuseValue(option, value, "one of " + words);
    }
    void takeDuration(const std::string& value) {
        options.duration = parseSeconds("--duration", value);
    }
    void takeName(const std::string& value) {
        const bool plain = std::none_of(value.begin(), value.end(), [](unsigned char character) {
            return character < 0x20 || character == '/';
        });
        if (value.empty() || value.size() > kLongestName || !plain) {
            refuseValue("--name", value, "a plain file name of 1 to 200 bytes");
        }
        options.name = value;
    }
    void takeControlCommand(const std::string& value) {
        if (value != "cancel" && value != "stop" && value != "status") {
            refuseValue("--command", value, "one of cancel, stop, status");
        }
        options.controlCommand = value;
    }
    void takeFeedbackFormat(const std::string& value) {
        if (value != "xml") {
            refuseValue("--ui-output-format", value, "xml, the only format there is");
        }
    }
    void takeFeedbackDescriptor(const std::string& value) {
        options.feedbackDescriptor = static_cast<int>(
            parseNumber("--ui-output-fd", value, 0, std::numeric_limits<int>::max()));
    }

    static const std::array<Valued, 12> kValued;

    Options options;
    std::optional<unsigned> frequency;
    bool showHelp = false;
    bool showVersion = false;
    bool listProcesses = false;
    bool check = false;
};

const std::array<OptionParser::Valued, 12> OptionParser::kValued = {{
    {"-r", &OptionParser::takeResultDirectory},
    {"--result", &OptionParser::takeResultDirectory},
    {"--option-file", &OptionParser::takeOptionFile},
    {"--pid", &OptionParser::takePid},
    {"--profile", &OptionParser::takeProfile},
    {"--engine", &OptionParser::takeEngine},
    {"--frequency", &OptionParser::takeFrequency},
    {"--duration", &OptionParser::takeDuration},
    {"--name", &OptionParser::takeName},
    {"--command", &OptionParser::takeControlCommand},
    {"--ui-output-format", &OptionParser::takeFeedbackFormat},
    {"--ui-output-fd", &OptionParser::takeFeedbackDescriptor},
}};

/// The agent appends its feedback options to every command line, also behind a command to start,
/// which would otherwise take them for its own arguments.
void moveFeedbackOptionsToFront(std::vector<std::string>& arguments) {
    constexpr std::size_t kFeedbackArguments = 4;
    if (arguments.size() < kFeedbackArguments) {
        return;
    }
    const auto first = arguments.end() - static_cast<std::ptrdiff_t>(kFeedbackArguments);
    if (first[0] == "--ui-output-format" && first[2] == "--ui-output-fd") {
        std::rotate(arguments.begin(), first, arguments.end());
    }
}

}  // namespace

Options parseOptions(std::vector<std::string> arguments) {
    moveFeedbackOptionsToFront(arguments);
    OptionParser parser;
    parser.parse(arguments, /*fromFile=*/false);
    return parser.finish();
}

std::vector<std::string> splitOptionLines(const std::string& text, const std::string& path) {
    const std::string place = "option --option-file: '" + path + "'";
    if (text.find('\0') != std::string::npos) {
        refuse(place + " contains a NUL byte");
    }
    if (!text.empty() && text.back() != '\n') {
        refuse(place + ": the last line does not end in a line feed");
    }
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = text.find('\n', begin);
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    // Options that end in a line feed arrive with an empty line at the end.
    if (!lines.empty() && lines.back().empty()) {
        lines.pop_back();
    }
    const auto empty = std::find(lines.begin(), lines.end(), std::string());
    if (empty != lines.end()) {
        refuse(place + ": line " + std::to_string(std::distance(lines.begin(), empty) + 1) +
               " is empty");
    }
    return lines;
}

std::string versionText() {
    return "kolvan-trcap 1.0 build " KOLVAN_TRCAP_BUILD "\n";
}

std::string usageText() {
    return R"(Usage: kolvan-trcap -r DIR [OPTION]... --pid N
       kolvan-trcap -r DIR [OPTION]... -- COMMAND [ARGUMENT]...
       kolvan-trcap -r DIR --command cancel|stop|status
       kolvan-trcap --list-processes | --check | --version | --help

Tells which functions of a program take its time, or wait, and who called them. Needs no
change to the program, and no more rights than to look at it. In DIR/data.0 it leaves
profile.pb.gz (for pprof and its relatives), summary.json, and NAME.trace.json, a timeline
in the Chrome Trace Event format. Where DIR holds results already, the next ones go to
DIR/data.1, and so on.

  -r, --result DIR          result directory; created when it is missing
      --pid N               profile this running process
      -- COMMAND ...        start this command and profile it; it is ended with the collection,
                            and what it has started with it
      --duration TIME       end after this time: 10, 10s, 500ms, 5m (default: with the target)
      --profile WHAT        "cpu": where processor time goes (default); "wait": where threads
                            wait, and how long; "none": the timeline alone
      --frequency HZ        samples of a busy thread in a second, 1 to 10000 (default 999);
                            with "--profile none" looks of the timeline (default 20)
      --no-children         only the process itself, not what it starts
      --inlined             source lines and inlined functions too, where there is debug
                            information; takes memory and time at the end
      --engine ENGINE       "perf", "ptrace" (no more than 100 Hz, where perf is not
                            allowed), or "auto" (default)
      --name NAME           base name of the timeline (default "collection")
      --option-file FILE    read options from FILE: one option or value a line, no quoting,
                            every line ends in a line feed; after the line "--" every line
                            is one argument of the command
      --command WORD        talk to the collection that runs in DIR: "status" describes it,
                            "stop" ends it, "cancel" ends it as cancelled; the last two
                            return when its results are whole
      --ui-output-format F  format of the feedback; only "xml" is known
      --ui-output-fd N      write feedback, one XML element a line, to descriptor N
      --list-processes      print the processes of this machine, and whether this user can
                            profile them: a table on a terminal, JSON otherwise
      --check               print what this machine and user allow, and what would help
      --version             print version and build number
  -h, --help                print this text

SIGINT, SIGTERM and SIGHUP end a collection as cancelled; its results are whole.

Exit status:
  0  the collection is whole, or the command was carried out
  1  failure
  2  the options make no sense
  3  no such process, or the command could not be started
  4  no collection is running in that directory
  5  the collection was cancelled or ended by a signal; its results are whole
  6  the results could not be written, a full disk for instance
)";
}

}  // namespace kolvan::profiler
