// Runs the real kolvan-trcap (its path is the definition KOLVAN_TRCAP_PATH) on real processes.

#include "companions/profiler/control/ControlServer.h"
#include "companions/profiler/control/ControlSocket.h"
#include "companions/profiler/output/CpuSeries.h"
#include "companions/profiler/output/TextEscape.h"
#include "companions/profiler/timeline/ProcessProbe.h"
#include "companions/profiler/timeline/TreeCpu.h"
#include "tests/profiler/support/Program.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <limits>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <regex.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::profiler {
namespace {

namespace fs = std::filesystem;
using kolvan::test::Pipe;
using kolvan::test::Program;
using Arguments = Program::Arguments;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kDeadline{60};
constexpr const char* kBusyLoop = "while :; do :; done";

std::string readFile(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << path;
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeFile(const fs::path& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file << text;
    ASSERT_TRUE(file.flush().good()) << path;
}

rapidjson::Document parseJson(const std::string& text) {
    rapidjson::Document document;
    document.Parse<rapidjson::kParseValidateEncodingFlag>(text.data(), text.size());
    if (document.HasParseError()) {
        throw std::runtime_error("no JSON: " + text.substr(0, 2000));
    }
    return document;
}

/// Matches the whole of `text` with an extended regular expression. @return what its groups
/// matched, the whole first; empty when it does not match
std::vector<std::string> matchWhole(const std::string& text, const std::string& pattern) {
    regex_t expression{};
    if (::regcomp(&expression, ("^(" + pattern + ")$").c_str(), REG_EXTENDED) != 0) {
        throw std::runtime_error("bad pattern " + pattern);
    }
    std::array<regmatch_t, 5> groups{};
    std::vector<std::string> found;
    if (::regexec(&expression, text.c_str(), groups.size(), groups.data(), 0) == 0) {
        for (std::size_t index = 1; index < groups.size() && groups[index].rm_so >= 0; ++index) {
            const auto begin = static_cast<std::size_t>(groups[index].rm_so);
            found.push_back(
                text.substr(begin, static_cast<std::size_t>(groups[index].rm_eo) - begin));
        }
    }
    ::regfree(&expression);
    return found;
}

Arguments withFeedback(Arguments arguments) {
    arguments.insert(arguments.end(), {"--ui-output-format", "xml", "--ui-output-fd", "3"});
    return arguments;
}

/// Every test has its own result directory, and leaves no file, process or descriptor.
class CollectorProgramTest : public testing::Test {
protected:
    void SetUp() override {
        // Orphans become our children, so that the audit at the end finds them.
        ASSERT_EQ(0, ::prctl(PR_SET_CHILD_SUBREAPER, 1));
        descriptorsBefore = descriptors();
        std::string pattern = (fs::temp_directory_path() / "trcap-XXXXXX").string();
        ASSERT_NE(nullptr, ::mkdtemp(pattern.data()));
        root = pattern;
        result = root / "result";
        fs::create_directory(result);
    }

    void TearDown() override {
        fs::remove_all(root);
        const pid_t left = ::waitpid(-1, nullptr, WNOHANG);
        EXPECT_EQ(-1, left) << "a child is left over";
        EXPECT_EQ(ECHILD, errno);
        EXPECT_EQ(descriptorsBefore, descriptors());
    }

    static std::set<std::string> descriptors() {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
            names.insert(entry.path().filename());
        }
        return names;
    }

    Arguments collect(const Arguments& more) const {
        Arguments arguments = {"-r", result.string()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return withFeedback(arguments);
    }
    Arguments command(const std::string& word) const { return collect({"--command", word}); }

    /// Where the last collection has left its results; the first one's place when there was none.
    fs::path data() const {
        int last = 0;
        while (fs::exists(result / ("data." + std::to_string(last + 1)))) {
            ++last;
        }
        return result / ("data." + std::to_string(last));
    }
    std::string tracePath(const std::string& name = "collection") const {
        return (data() / (name + ".trace.json")).string();
    }
    rapidjson::Document trace(const std::string& name = "collection") const {
        return parseJson(readFile(tracePath(name)));
    }
    rapidjson::Document summary() const { return parseJson(readFile(data() / "summary.json")); }
    std::string reason() const { return summary()["reason"].GetString(); }

    /// Runs "status" once. @return the number after `word` in its answer
    int status(const std::string& word) const {
        Program program(command("status"));
        EXPECT_EQ(0, program.finish()) << program.errors();
        const auto match = matchWhole(program.output(), ".*" + word + " ([0-9]+),.*\n");
        EXPECT_FALSE(match.empty()) << program.output();
        return match.empty() ? -1 : std::stoi(match[1]);
    }

    /// Waits until the running collection has begun and ended another sample.
    void waitForAnotherSample() const {
        const auto deadline = Clock::now() + kDeadline;
        const int before = status("samples");
        while (status("samples") < before + 2) {
            ASSERT_LT(Clock::now(), deadline);
        }
    }

    FileDescriptor connectToControl() const {
        const FileDescriptor directory(::open(result.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        const sockaddr_un address = controlAddress(directory.get(), kControlSocketName);
        FileDescriptor connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const timeval limit{kDeadline.count(), 0};
        EXPECT_EQ(0, ::setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit));
        EXPECT_EQ(0, ::connect(connection.get(), reinterpret_cast<const sockaddr*>(&address),
                               sizeof address));
        return connection;
    }

    /// Sends `text` and reads until the other side hangs up.
    static std::string say(const FileDescriptor& connection, const std::string& text) {
        (void)::send(connection.get(), text.data(), text.size(), MSG_NOSIGNAL);
        std::string answer(1024, '\0');
        const ssize_t length = ::recv(connection.get(), answer.data(), answer.size(), MSG_WAITALL);
        answer.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        return answer;
    }

    fs::path root;
    fs::path result;

private:
    std::set<std::string> descriptorsBefore;
};

int countEvents(const rapidjson::Document& trace, const std::string& phase,
                const std::string& name) {
    const auto& events = trace["traceEvents"].GetArray();
    return static_cast<int>(std::count_if(events.begin(), events.end(), [&](const auto& event) {
        return event["ph"].GetString() == phase && event["name"].GetString() == name;
    }));
}

TEST_F(CollectorProgramTest, VersionCarriesTheBuildNumberAlsoWithTheAgentsOptions) {
    for (const Arguments& arguments : {Arguments{"--version"}, withFeedback({"--version"})}) {
        Program program(arguments);

        EXPECT_EQ(0, program.finish());
        EXPECT_FALSE(matchWhole(program.output(), "kolvan-trcap 1\\.0 build [0-9]+\n").empty())
            << program.output();
        EXPECT_EQ("", program.errors());
    }
}

TEST_F(CollectorProgramTest, HelpNamesEveryOptionAndExitStatus) {
    Program program({"--help"});

    EXPECT_EQ(0, program.finish());
    for (const char* text :
         {"-r, --result", "--pid", "-- COMMAND", "--frequency", "--duration", "--name",
          "--option-file", "--command", "--ui-output-format", "--ui-output-fd", "--version",
          "--help", "\n  0  ", "\n  1  ", "\n  2  ", "\n  3  ", "\n  4  ", "\n  5  ", "\n  6  "}) {
        EXPECT_NE(std::string::npos, program.output().find(text)) << text;
    }
}

TEST_F(CollectorProgramTest, HelpHasAShortName) {
    Program program({"-h"});
    Program longName({"--help"});

    EXPECT_EQ(0, program.finish()) << program.errors();
    EXPECT_EQ(0, longName.finish());
    EXPECT_EQ(longName.output(), program.output());
}

TEST_F(CollectorProgramTest, ValuesMayFollowAnEqualsSignAndTimesHaveTheirUnit) {
    const Program target({"-c", kBusyLoop}, "sh");
    for (const char* duration : {"--duration=1s", "--duration=50ms", "--duration=0.001m"}) {
        Program program({"--result=" + result.string(), "--pid=" + std::to_string(target.id()),
                         duration, "--profile=none"});

        EXPECT_EQ(0, program.finish()) << program.errors();
        EXPECT_EQ("duration", reason()) << duration;
        const double least = std::string(duration) == "--duration=1s" ? 1 : 0.05;
        EXPECT_LE(least, summary()["durationSeconds"].GetDouble()) << duration;
    }
    Program flag({"--help=yes"});
    EXPECT_EQ(2, flag.finish());
    EXPECT_EQ("kolvan-trcap: option --help: takes no value\nTry 'kolvan-trcap --help'.\n",
              flag.errors());
}

TEST_F(CollectorProgramTest, BadOptionsAreNamedOnOneLine) {
    const std::string r = result.string();
    const std::vector<std::pair<Arguments, std::string>> cases = {
        {{}, "option -r: a result directory is needed"},
        {{"-r"}, "option -r: a value is missing"},
        {{"-r", ""}, "option -r: the directory's name is empty"},
        {{"--pid", "1"}, "option -r: a result directory is needed"},
        {{"-r", r}, "option --pid: give either --pid or, after --, a command to start"},
        {{"-r", r, "--"}, "option --: a command is missing"},
        {{"-r", r, "--pid", "1", "--", "true"},
         "option --pid: cannot be combined with a command to start"},
        {{"-r", r, "--pid", "0"}, "option --pid: '0' is not a number from 1 to 4194304"},
        {{"-r", r, "--pid", "1x"}, "option --pid: '1x' is not a number from 1 to 4194304"},
        {{"-r", r, "--frequency", "0"}, "option --frequency: '0' is not a number from 1 to 10000"},
        {{"-r", r, "--frequency", "10001"},
         "option --frequency: '10001' is not a number from 1 to 10000"},
        {{"-r", r, "--frequency", ""}, "option --frequency: '' is not a number from 1 to 10000"},
        {{"-r", r, "--duration", "0"},
         "option --duration: '0' is not a time from 0.001 to 1000000 "
         "seconds, as in 10, 10s, 500ms, 5m or 1h"},
        {{"-r", r, "--duration", "nan"},
         "option --duration: 'nan' is not a time from 0.001 to 1000000 "
         "seconds, as in 10, 10s, 500ms, 5m or 1h"},
        {{"-r", r, "--duration", "-1"},
         "option --duration: '-1' is not a time from 0.001 to 1000000 "
         "seconds, as in 10, 10s, 500ms, 5m or 1h"},
        {{"-r", r, "--duration", "1x"},
         "option --duration: '1x' is not a time from 0.001 to 1000000 "
         "seconds, as in 10, 10s, 500ms, 5m or 1h"},
        {{"-r", r, "--name", "../x"},
         "option --name: '../x' is not a plain file name of 1 to 200 bytes"},
        {{"-r", r, "--command", "quit"},
         "option --command: 'quit' is not one of cancel, stop, status"},
        {{"-r", r, "--command", "stop", "--pid", "1"},
         "option --command: cannot be combined with --pid or a command to start"},
        {{"--ui-output-format", "json"},
         "option --ui-output-format: 'json' is not xml, the only format there is"},
        {{"--speed", "1"}, "option --speed: unknown"},
        {{"-r", r, "true"}, "argument 'true': unexpected; a command to start follows --"},
        {{"--option-file", "/does/not/exist"},
         "option --option-file: cannot open '/does/not/exist'"},
    };
    for (const auto& [arguments, text] : cases) {
        Program program(arguments);

        EXPECT_EQ(2, program.finish()) << text;
        EXPECT_EQ("kolvan-trcap: " + text + "\nTry 'kolvan-trcap --help'.\n", program.errors());
        EXPECT_EQ("", program.output());
    }
    EXPECT_TRUE(fs::is_empty(result));
}

TEST_F(CollectorProgramTest, MeasuresACommandForAGivenTime) {
    Program program(collect({"--duration", "0.5", "--name", "busy", "--", "sh", "-c", kBusyLoop}));

    EXPECT_EQ(0, program.finish()) << program.errors();
    EXPECT_EQ("", program.errors());
    const rapidjson::Document figures = summary();
    EXPECT_GT(figures["cpuPercentAverage"].GetDouble(), 5.0);
    EXPECT_GE(figures["cpuPercentMax"].GetDouble(), figures["cpuPercentAverage"].GetDouble());
    EXPECT_GT(figures["residentMaxKiB"].GetInt(), 100);
    EXPECT_GE(figures["durationSeconds"].GetDouble(), 0.5);
    EXPECT_STREQ("duration", figures["reason"].GetString());
    EXPECT_STREQ("ended by signal 15 (SIGTERM)", figures["targetEnding"].GetString());
    EXPECT_GE(figures["cpuPercentSeries"].Size(), 1U);
    EXPECT_EQ(std::string("sh -c ") + kBusyLoop, figures["target"].GetString());
    EXPECT_EQ(tracePath("busy"), figures["trace"].GetString());
    EXPECT_NE(std::string::npos, program.output().find("Ended:     the duration is over"));
    EXPECT_NE(std::string::npos, program.output().find("Trace:     " + tracePath("busy") + "\n"));
    EXPECT_FALSE(fs::exists(result / kControlSocketName));
}

TEST_F(CollectorProgramTest, TerminalShowsWhatIsGoingOnAndThenTheResultAlone) {
    int master = -1;
    const pid_t child = ::forkpty(&master, nullptr, nullptr, nullptr);
    ASSERT_LE(0, child);
    if (child == 0) {
        (void)::execl(KOLVAN_TRCAP_PATH, "kolvan-trcap", "-r", result.c_str(), "--duration",
                      "300ms", "--", "sh", "-c", kBusyLoop, nullptr);
        ::_exit(1);
    }
    std::string text;
    {
        const FileDescriptor end(master);
        std::array<char, 4096> bytes{};
        for (ssize_t count = 0; (count = ::read(master, bytes.data(), bytes.size())) > 0;) {
            text.append(bytes.data(), static_cast<std::size_t>(count));
        }
    }
    int status = 0;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));

    EXPECT_EQ(0, status) << text;
    const std::string erased = "\r\x1B[K";
    const std::size_t line = text.find(" s  CPU ", text.find(erased));
    ASSERT_NE(std::string::npos, line) << text;
    // It is gone before the result, which is the last thing on the terminal.
    const std::size_t last = text.rfind(erased);
    EXPECT_LT(line, last);
    EXPECT_EQ(last + erased.size(), text.find("Target:    sh -c "));
}

TEST_F(CollectorProgramTest, TraceHoldsMetadataCountersAndSlices) {
    Program program(collect({"--duration", "0.5", "--", "sh", "-c", kBusyLoop}));
    ASSERT_EQ(0, program.finish()) << program.errors();
    const rapidjson::Document document = trace();
    const int pid = summary()["pid"].GetInt();
    const std::string threadCounter = "CPU % sh (" + std::to_string(pid) + ")";

    EXPECT_EQ(1, countEvents(document, "M", "process_name"));
    EXPECT_EQ(1, countEvents(document, "M", "thread_name"));
    EXPECT_GE(countEvents(document, "X", "running"), 1);
    for (const std::string& name :
         {std::string("CPU %"), threadCounter, std::string("Resident memory KiB"),
          std::string("Virtual memory KiB"), std::string("Threads"),
          std::string("Context switches/s")}) {
        EXPECT_GE(countEvents(document, "C", name), 1) << name;
    }
    std::int64_t lastCounter = 0;
    std::int64_t lastEnd = 0;
    double mostCpu = 0;
    for (const auto& event : document["traceEvents"].GetArray()) {
        ASSERT_EQ(pid, event["pid"].GetInt());
        const std::string phase = event["ph"].GetString();
        if (phase == "C") {
            EXPECT_GE(event["ts"].GetInt64(), lastCounter);
            lastCounter = event["ts"].GetInt64();
            for (const auto& series : event["args"].GetObject()) {
                EXPECT_GE(series.value.GetDouble(), 0.0);
            }
            if (event["name"].GetString() == threadCounter) {
                mostCpu = std::max(mostCpu, event["args"]["cpu"].GetDouble());
            }
        } else if (phase == "X") {
            // One thread: its states follow each other without a gap.
            EXPECT_TRUE(lastEnd == 0 || event["ts"].GetInt64() == lastEnd);
            EXPECT_GE(event["dur"].GetInt64(), 0);
            lastEnd = event["ts"].GetInt64() + event["dur"].GetInt64();
        }
    }
    EXPECT_GT(mostCpu, 5.0);
    EXPECT_GE(lastEnd, lastCounter);
}

TEST_F(CollectorProgramTest, EndsWithItsTargetAndTellsItsExitStatus) {
    Program program(collect({"--", "sh", "-c", "echo travels through; exit 3"}));

    EXPECT_EQ(0, program.finish()) << program.errors();
    EXPECT_EQ(0U, program.output().find("travels through\n"));
    EXPECT_NE(std::string::npos,
              program.output().find("the target has ended, the command ended with exit status 3"));
    EXPECT_EQ("target-ended", reason());
    EXPECT_TRUE(trace()["traceEvents"].IsArray());
}

TEST_F(CollectorProgramTest, CommandThatEndsAtOnceHasNoFigureOrAPossibleOne) {
    Program program(collect({"--", "true"}));
    ASSERT_EQ(0, program.finish()) << program.errors();

    // On a crowded machine it may take long enough for a figure.
    const rapidjson::Document figures = summary();
    const double most = 100.0 * static_cast<double>(::sysconf(_SC_NPROCESSORS_ONLN));
    if (figures["cpuPercentAverage"].IsNull()) {
        EXPECT_NE(std::string::npos, program.output().find("CPU:       too short for a figure\n"));
        EXPECT_TRUE(figures["cpuPercentMax"].IsNull());
    } else {
        EXPECT_GE(figures["cpuPercentMax"].GetDouble(), figures["cpuPercentAverage"].GetDouble());
        EXPECT_LE(figures["cpuPercentMax"].GetDouble(), most);
    }
}

TEST_F(CollectorProgramTest, MeasuresARunningProcessAndLeavesItAlone) {
    Program target({"-c", kBusyLoop}, "sh");
    Program program(collect({"--pid", std::to_string(target.id())}));
    program.waitForStart();
    Program stop(command("stop"));

    EXPECT_EQ(0, stop.finish()) << stop.errors();
    EXPECT_EQ(0, program.finish()) << program.errors();
    EXPECT_EQ("stopped", reason());
    EXPECT_FALSE(summary().HasMember("targetEnding"));
    EXPECT_EQ(0, ::kill(target.id(), 0));
}

TEST_F(CollectorProgramTest, EndsWhenARunningProcessEnds) {
    Program target({"-c", kBusyLoop}, "sh");
    Program program(collect({"--pid", std::to_string(target.id())}));
    program.waitForStart();

    // Not waited for yet, it stays behind as a zombie, which counts as ended.
    target.signal(SIGKILL);

    EXPECT_EQ(0, program.finish()) << program.errors();
    EXPECT_EQ("target-ended", reason());
    EXPECT_EQ(128 + SIGKILL, target.finish());
}

TEST_F(CollectorProgramTest, FollowsThreadsThatAppearAndVanish) {
    // A sanitizer may start a thread of its own together with our first one.
    std::thread([] {}).join();
    Program program(collect({"--pid", std::to_string(::getpid()), "--frequency", "100"}));
    program.waitForStart();
    const int before = status("threads");
    std::promise<void> release;
    std::promise<pid_t> started;
    std::thread thread([&] {
        (void)::prctl(PR_SET_NAME, "odd\")\xFF ( n");
        started.set_value(::gettid());
        release.get_future().wait();
    });
    const pid_t id = started.get_future().get();
    waitForAnotherSample();
    const int meanwhile = status("threads");
    release.set_value();
    thread.join();
    waitForAnotherSample();
    const int after = status("threads");
    program.signal(SIGTERM);
    EXPECT_EQ(5, program.finish()) << program.errors();

    const rapidjson::Document document = trace();
    bool named = false;
    bool sliced = false;
    for (const auto& event : document["traceEvents"].GetArray()) {
        if (event.HasMember("tid") && event["tid"].GetInt() == id) {
            const std::string phase = event["ph"].GetString();
            named = named || (phase == "M" && std::string("odd\")\xEF\xBF\xBD ( n") ==
                                                  event["args"]["name"].GetString());
            sliced = sliced || phase == "X";
        }
    }
    EXPECT_EQ(before + 1, meanwhile);
    EXPECT_EQ(before, after);
    EXPECT_TRUE(named);
    EXPECT_TRUE(sliced);
    EXPECT_EQ(before + 1, summary()["threadsMax"].GetInt());
}

TEST_F(CollectorProgramTest, SignalsEndItWithAWholeTrace) {
    for (const auto& [number, word] :
         {std::pair{SIGTERM, "terminated"}, std::pair{SIGINT, "interrupted"},
          std::pair{SIGHUP, "terminated"}}) {
        Program program(collect({"--", "sh", "-c", kBusyLoop}));
        program.waitForStart();

        program.signal(number);

        EXPECT_EQ(5, program.finish()) << program.errors();
        EXPECT_EQ(word, reason());
        EXPECT_STREQ(word, trace()["otherData"]["reason"].GetString());
    }
}

TEST_F(CollectorProgramTest, InterruptReachesItAlsoWhenItWasIgnoredBefore) {
    Arguments arguments = {"-c", "trap '' INT CHLD; exec \"$0\" \"$@\"", KOLVAN_TRCAP_PATH};
    const Arguments more = collect({"--", "sh", "-c", kBusyLoop});
    arguments.insert(arguments.end(), more.begin(), more.end());
    Program program(arguments, "sh");
    program.waitForStart();

    program.signal(SIGINT);

    EXPECT_EQ(5, program.finish()) << program.errors();
    EXPECT_EQ("interrupted", reason());
}

TEST_F(CollectorProgramTest, CommandsReachTheRunningCollection) {
    for (const auto& [word, code, ending] :
         {std::tuple{"cancel", 5, "cancelled"}, std::tuple{"stop", 0, "stopped"}}) {
        Program program(collect({"--", "sh", "-c", kBusyLoop}));
        program.waitForStart();
        Program status(command("status"));
        EXPECT_EQ(0, status.finish()) << status.errors();
        EXPECT_FALSE(matchWhole(status.output(),
                                "collecting for [0-9.]+ s, samples [0-9]+, threads 1, "
                                "CPU [0-9.]+ %, average [0-9.]+ %\n")
                         .empty())
            << status.output();

        Program end(command(word));
        EXPECT_EQ(0, end.finish()) << end.errors();

        // The command's end means that the results are there.
        EXPECT_EQ(ending, reason());
        EXPECT_STREQ(ending, trace()["otherData"]["reason"].GetString());
        EXPECT_TRUE(end.output().starts_with(std::string("collection ") + ending)) << end.output();
        EXPECT_EQ(code, program.finish()) << program.errors();
    }
}

TEST_F(CollectorProgramTest, EveryCommandThatComesTogetherIsAnswered) {
    Program program(collect({"--", "sh", "-c", kBusyLoop}));
    program.waitForStart();
    std::vector<FileDescriptor> connections;
    for (int index = 0; index < 5; ++index) {
        connections.push_back(connectToControl());
    }

    std::vector<std::string> answers;
    for (const FileDescriptor& connection : connections) {
        answers.push_back(say(connection, "cancel\n"));
    }

    EXPECT_EQ(5, program.finish()) << program.errors();
    for (const std::string& answer : answers) {
        EXPECT_TRUE(answer.starts_with("ok collection cancelled, samples ")) << answer;
    }
}

TEST_F(CollectorProgramTest, CommandWithoutACollectionSaysSo) {
    Program program(command("cancel"));
    Program elsewhere({"-r", (root / "missing").string(), "--command", "status"});

    EXPECT_EQ(4, program.finish());
    EXPECT_EQ("kolvan-trcap: no collection is running in '" + result.string() + "'\n",
              program.errors());
    EXPECT_EQ(4, elsewhere.finish());
    EXPECT_EQ("kolvan-trcap: no collection is running in '" + (root / "missing").string() +
                  "': No such file or directory\n",
              elsewhere.errors());
}

TEST_F(CollectorProgramTest, CommandThatComesTooEarlyWaitsForTheCollection) {
    const FileDescriptor directory(::open(result.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    Program status(command("status"));
    // Once it watches the directory, it has either looked already or is about to.
    const fs::path opened = "/proc/" + std::to_string(status.id()) + "/fd";
    const auto watches = [&opened] {
        std::error_code ignored;  // a descriptor may be closed while we look
        for (const auto& entry : fs::directory_iterator(opened)) {
            if (fs::read_symlink(entry.path(), ignored) == "anon_inode:inotify") {
                return true;
            }
        }
        return false;
    };
    const auto deadline = Clock::now() + kDeadline;
    while (!watches()) {
        ASSERT_LT(Clock::now(), deadline);
    }

    ControlServer server(directory.get());
    bool asked = false;
    while (!asked && Clock::now() < deadline) {
        std::vector<pollfd> entries;
        server.addPollEntries(entries);
        ASSERT_LE(0, ::poll(entries.data(), entries.size(), 1000));
        server.handle([&asked](const std::string& word) {
            asked = true;
            return "ok heard " + word;
        });
    }

    EXPECT_EQ(0, status.finish()) << status.errors();
    EXPECT_EQ("heard status\n", status.output());
}

TEST_F(CollectorProgramTest, GarbageAndSilentConnectionsHoldUpNothing) {
    Program program(collect({"--", "sh", "-c", kBusyLoop}));
    program.waitForStart();
    std::vector<FileDescriptor> silent;
    for (int index = 0; index < 40; ++index) {
        silent.push_back(connectToControl());
    }

    EXPECT_EQ("error unknown command\n", say(connectToControl(), "\x01\xFF<nonsense>\n"));
    EXPECT_EQ("", say(connectToControl(), std::string(100'000, 'x')));
    Program status(command("status"));
    EXPECT_EQ(0, status.finish()) << status.errors();
    Program stop(command("stop"));
    EXPECT_EQ(0, stop.finish()) << stop.errors();
    EXPECT_EQ(0, program.finish()) << program.errors();
}

TEST_F(CollectorProgramTest, CommandsWorkInADirectoryWithALongPath) {
    for (int level = 0; level < 5; ++level) {
        result /= std::string(60, 'x');
    }
    fs::create_directories(result);
    Program program(collect({"--", "sh", "-c", kBusyLoop}));
    program.waitForStart();
    Program stop(command("stop"));

    EXPECT_EQ(0, stop.finish()) << stop.errors();
    EXPECT_EQ(0, program.finish()) << program.errors();
}

TEST_F(CollectorProgramTest, SecondCollectionInTheSameDirectoryIsRefused) {
    Program program(collect({"--", "sh", "-c", kBusyLoop}));
    program.waitForStart();
    Program second(collect({"--", "sh", "-c", kBusyLoop}));

    EXPECT_EQ(1, second.finish());
    EXPECT_EQ("kolvan-trcap: a collection is already running in '" + result.string() + "'\n",
              second.errors());
    Program stop(command("stop"));
    EXPECT_EQ(0, stop.finish()) << stop.errors();
    EXPECT_EQ(0, program.finish()) << program.errors();
}

TEST_F(CollectorProgramTest, NextCollectionInTheSameDirectoryLeavesTheResultsAlone) {
    Program first(collect({"--", "sh", "-c", "exit 1"}));
    ASSERT_EQ(0, first.finish()) << first.errors();
    const std::string trace = readFile(result / "data.0/collection.trace.json");
    const std::string figures = readFile(result / "data.0/summary.json");

    Program second(collect({"--", "sh", "-c", "exit 2"}));
    ASSERT_EQ(0, second.finish()) << second.errors();

    EXPECT_EQ(trace, readFile(result / "data.0/collection.trace.json"));
    EXPECT_EQ(figures, readFile(result / "data.0/summary.json"));
    EXPECT_EQ(result / "data.1", data());
    EXPECT_STREQ("ended with exit status 2", summary()["targetEnding"].GetString());
    EXPECT_NE(std::string::npos, second.output().find("Trace:     " + tracePath() + "\n"));
}

TEST_F(CollectorProgramTest, CollectionThatCouldNotBeginTakesNoNumber) {
    Program failed(collect({"--", "/does/not/exist"}));
    ASSERT_EQ(3, failed.finish());

    Program next(collect({"--", "true"}));
    ASSERT_EQ(0, next.finish()) << next.errors();

    EXPECT_EQ(result / "data.0", data());
    EXPECT_TRUE(trace()["traceEvents"].IsArray());
}

TEST_F(CollectorProgramTest, CommandThatIgnoresSigtermIsKilled) {
    Program program(
        collect({"--", "sh", "-c", std::string("trap '' TERM; echo ready; ") + kBusyLoop}));
    program.waitFor(1, "ready\n");
    Program cancel(command("cancel"));

    EXPECT_EQ(0, cancel.finish()) << cancel.errors();
    EXPECT_EQ(5, program.finish()) << program.errors();
    EXPECT_STREQ("ended by signal 9 (SIGKILL)", summary()["targetEnding"].GetString());
}

TEST_F(CollectorProgramTest, CommandStartsWithDefaultSignalsAndWithoutOurDescriptors) {
    Program program(collect({"--", "sh", "-c",
                             "grep -E 'SigBlk|SigIgn' /proc/self/status; "
                             "test ! -e /proc/self/fd/3 || echo feedback inherited"}));

    EXPECT_EQ(0, program.finish()) << program.errors();
    const auto match =
        matchWhole(program.output(), "SigBlk:\t0{16}\nSigIgn:\t([0-9a-f]{16})\nTarget:.*");
    ASSERT_FALSE(match.empty()) << program.output();
    // The C library keeps signals 32 and 33 for itself; nobody else can use them.
    EXPECT_EQ(0U, std::stoull(match[1], nullptr, 16) & ~0x180000000ULL);
}

TEST_F(CollectorProgramTest, TargetThatCannotBeMeasuredHasItsOwnExitStatus) {
    Program ended({"-c", "exit 0"}, "sh");
    const pid_t free = ended.id();
    ASSERT_EQ(0, ended.finish());
    Program noProcess(collect({"--pid", std::to_string(free)}));
    EXPECT_EQ(3, noProcess.finish());
    EXPECT_EQ("kolvan-trcap: there is no process " + std::to_string(free) + "\n",
              noProcess.errors());

    Program noCommand(collect({"--", "/does/not/exist"}));
    EXPECT_EQ(3, noCommand.finish());
    EXPECT_EQ("kolvan-trcap: cannot start '/does/not/exist': No such file or directory\n",
              noCommand.errors());
    EXPECT_EQ(
        "<failure code=\"3\" message=\"cannot start '/does/not/exist': No such file or "
        "directory\"/>\n",
        noCommand.feedback());
    EXPECT_FALSE(fs::exists(tracePath()));
}

TEST_F(CollectorProgramTest, OptionFileHoldsOneOptionOrValuePerLine) {
    const fs::path file = root / "options";
    writeFile(file, "--duration\n0.2\n--name\nfrom file\n-r\n" + result.string() +
                        "\n--\nsh\n-c\necho \"$1\"; " + kBusyLoop + "\nsh\n two  words \n\n");
    Program program(withFeedback({"--option-file", file.string()}));

    EXPECT_EQ(0, program.finish()) << program.errors();
    EXPECT_EQ(0U, program.output().find(" two  words \n")) << program.output();
    EXPECT_TRUE(trace("from file")["traceEvents"].IsArray());
}

TEST_F(CollectorProgramTest, BadOptionFilesAreRefused) {
    const std::string file = (root / "options").string();
    const std::string place = "option --option-file: '" + file + "'";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"--pid\n1\n\n\n", place + ": line 3 is empty"},
        {"\n--pid\n1\n", place + ": line 1 is empty"},
        {"--pid\n1", place + ": the last line does not end in a line feed"},
        {std::string("--pid\n1\0\n", 9), place + " contains a NUL byte"},
        {std::string(2'000'000, '\n'), place + " is larger than 1 MiB"},
        {"--option-file\nx\n", "option --option-file: an option file cannot name another one"},
        {"--duration\n", "option --duration: a value is missing"},
    };
    for (const auto& [text, message] : cases) {
        writeFile(file, text);
        Program program({"-r", result.string(), "--option-file", file});

        EXPECT_EQ(2, program.finish()) << message;
        EXPECT_EQ("kolvan-trcap: " + message + "\nTry 'kolvan-trcap --help'.\n", program.errors());
    }
}

TEST_F(CollectorProgramTest, FeedbackIsOneWellFormedElementPerLine) {
    const std::string hostile = "<&>\"'\t\n\r\x01\xFF\xEF\xBF\xBF\xC3\xA4";
    Program program(collect({"--", "sh", "-c", kBusyLoop, hostile}));
    program.waitFor(3, "<progress ");
    program.signal(SIGTERM);
    ASSERT_EQ(5, program.finish());

    const std::string element =
        "<[a-z]+( [a-z0-9]+=\"([^<&\">]|&(amp|lt|gt|quot|#9|#10|#13);)*\")*/>";
    std::istringstream lines(program.feedback());
    for (std::string line; std::getline(lines, line);) {
        EXPECT_FALSE(matchWhole(line, element).empty()) << line;
    }
    EXPECT_NE(std::string::npos,
              program.feedback().find("&lt;&amp;&gt;&quot;'&#9;&#10;&#13;\xEF\xBF\xBD\xEF\xBF\xBD"
                                      "\xEF\xBF\xBD\xC3\xA4"));
    EXPECT_EQ(0U, program.feedback().find("<collection state=\"started\" pid=\""));
    EXPECT_NE(std::string::npos,
              program.feedback().find("<collection state=\"finished\" reason=\"terminated\""));
    // What the terminal shows cannot control it.
    EXPECT_EQ(std::string::npos, program.output().find('\r'));
    EXPECT_TRUE(trace()["traceEvents"].IsArray());
}

TEST_F(CollectorProgramTest, FeedbackWithoutAReaderEndsNothing) {
    Program program(collect({"--", "sh", "-c", kBusyLoop}));
    program.waitForStart();
    program.stopReadingFeedback();
    program.signal(SIGTERM);
    EXPECT_EQ(5, program.finish()) << program.errors();
    EXPECT_EQ("terminated", reason());

    Program closed({"-r", result.string(), "--ui-output-fd", "1000", "--", "true"});
    EXPECT_EQ(0, closed.finish()) << closed.errors();
}

TEST_F(CollectorProgramTest, FullFeedbackPipeEndsNothing) {
    Pipe full;
    ASSERT_EQ(0, ::fcntl(full.writeEnd.get(), F_SETFL, O_NONBLOCK));
    const std::string block(4096, 'x');
    while (::write(full.writeEnd.get(), block.data(), block.size()) > 0) {
    }
    ASSERT_EQ(EAGAIN, errno);
    ASSERT_EQ(0, ::fcntl(full.writeEnd.get(), F_SETFL, 0));
    const int number = ::fcntl(full.writeEnd.get(), F_DUPFD, 40);
    const FileDescriptor inherited(number);

    Program program({"-r", result.string(), "--duration", "0.1", "--ui-output-fd",
                     std::to_string(number), "--", "sh", "-c", kBusyLoop});

    EXPECT_EQ(0, program.finish()) << program.errors();
    EXPECT_EQ("duration", reason());
}

TEST_F(CollectorProgramTest, FullDiskIsReportedAndLeavesAWholeTrace) {
    // A limit of 8 blocks of 512 bytes stands for a disk without room.
    Arguments arguments = {"-c", "ulimit -f 8; exec \"$0\" \"$@\"", KOLVAN_TRCAP_PATH};
    const Arguments more = collect({"--frequency", "100", "--", "sh", "-c", kBusyLoop});
    arguments.insert(arguments.end(), more.begin(), more.end());
    Program program(arguments, "sh");

    EXPECT_EQ(6, program.finish());
    EXPECT_EQ("kolvan-trcap: cannot write '" + tracePath() + "': File too large\n",
              program.errors());
    EXPECT_GE(countEvents(trace(), "M", "process_name"), 1);
    EXPECT_FALSE(fs::exists(result / kControlSocketName));
}

TEST_F(CollectorProgramTest, ResultsThatCannotBeWrittenHaveTheirOwnExitStatus) {
    const fs::path inTheWay = result / "data.0" / "summary.json";
    Program noSummary(collect({"--", "mkdir", inTheWay.string()}));
    EXPECT_EQ(6, noSummary.finish());
    EXPECT_EQ("kolvan-trcap: cannot write '" + inTheWay.string() + "': Is a directory\n",
              noSummary.errors());
    EXPECT_TRUE(trace()["traceEvents"].IsArray());

    writeFile(root / "file", "");
    Program noDirectory(withFeedback({"-r", (root / "file").string(), "--", "true"}));
    EXPECT_EQ(6, noDirectory.finish());
    EXPECT_EQ(
        "kolvan-trcap: cannot open directory '" + (root / "file").string() + "': Not a directory\n",
        noDirectory.errors());
}

TEST_F(CollectorProgramTest, KilledCollectionLeavesAWholeTraceAndNoObstacle) {
    Program program(collect({"--pid", std::to_string(::getpid())}));
    program.waitFor(3, "<progress ");
    program.signal(SIGKILL);
    EXPECT_EQ(128 + SIGKILL, program.finish());
    EXPECT_GE(countEvents(trace(), "M", "process_name"), 1);
    EXPECT_TRUE(fs::exists(result / kControlSocketName));

    Program next(collect({"--", "sh", "-c", kBusyLoop}));
    next.waitForStart();
    Program stop(command("stop"));
    EXPECT_EQ(0, stop.finish()) << stop.errors();
    EXPECT_EQ(0, next.finish()) << next.errors();
}

TEST_F(CollectorProgramTest, MissedTicksAreCountedAndNotMadeUp) {
    Program program(
        collect({"--profile", "none", "--frequency", "1000", "--", "sh", "-c", kBusyLoop}));
    program.waitForStart();
    program.waitFor(3, "<progress ");
    program.signal(SIGSTOP);
    siginfo_t info{};
    ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(program.id()), &info, WSTOPPED));
    const auto stopped = Clock::now();
    while (Clock::now() - stopped < std::chrono::milliseconds(20)) {
        // Ticks pass meanwhile.
    }
    program.signal(SIGCONT);
    Program stop(command("stop"));
    EXPECT_EQ(0, stop.finish()) << stop.errors();
    EXPECT_EQ(0, program.finish()) << program.errors();

    const rapidjson::Document figures = summary();
    const double samples = figures["samples"].GetDouble();
    const double missed = figures["missedTicks"].GetDouble();
    EXPECT_GT(missed, 0.0);
    // The first sample stands outside the ticks; the duration is rounded to milliseconds.
    EXPECT_LE(samples - 1 + missed, figures["durationSeconds"].GetDouble() * 1000 + 1);
    EXPECT_LE(figures["cpuPercentSeries"].Size(), 60U);
}

TEST_F(CollectorProgramTest, PackageScriptPutsTheCollectorTwoDirectoriesDeep) {
    const fs::path script = fs::path(__FILE__).parent_path().parent_path().parent_path() /
                            "scripts" / "make-collector-package";
    for (const char* name : {"first", "second"}) {
        Program pack({KOLVAN_TRCAP_PATH, (root / name).string()}, script.c_str());
        ASSERT_EQ(0, pack.finish()) << pack.errors();
        EXPECT_EQ("kolvan-target-x86.tar.gz\nkolvan-target-x64.tar.gz\n", pack.output());
    }
    for (const char* archive : {"kolvan-target-x86.tar.gz", "kolvan-target-x64.tar.gz"}) {
        EXPECT_EQ(readFile(root / "first" / archive), readFile(root / "second" / archive));
        Program extract({"-xzf", (root / "first" / archive).string(), "-C", result.string()},
                        "tar");
        ASSERT_EQ(0, extract.finish()) << extract.errors();
    }
    std::vector<fs::path> found;
    for (const auto& entry : fs::recursive_directory_iterator(result)) {
        if (entry.path().filename() == "kolvan-trcap") {
            found.push_back(entry.path());
        }
    }
    ASSERT_EQ(std::vector<fs::path>{result / "kolvan-target" / "x64" / "kolvan-trcap"}, found);
    EXPECT_TRUE(fs::exists(result / "kolvan-target" / "x64" / "kolvan-trcap.1"));
    Program version({"--version"}, found.front().c_str());
    EXPECT_EQ(0, version.finish());
}

TEST(CollectorPartsTest, StatNamesMayContainBracketsAndBlanks) {
    ThreadReading reading;

    EXPECT_TRUE(parseStat("12 (a) R (b c)) S 1 2 3 4 5 6 7 8 9 10 30 12 0 0", 100, reading));
    EXPECT_EQ("a) R (b c)", reading.name);
    EXPECT_EQ('S', reading.state);
    EXPECT_EQ(420'000'000U, reading.cpuNanoseconds);
    for (const char* text : {"", "1", "1 (a", "1 (a)", "1 (a) ", "1 (a) S", "1 (a) S 1 2 3", ") (",
                             "1 (a) S 1 2 3 4 5 6 7 8 9 10 x y"}) {
        EXPECT_FALSE(parseStat(text, 100, reading)) << text;
    }
}

TEST(CollectorPartsTest, TimeOfChildrenThatWereWaitedForFollowsTheNameToo) {
    EXPECT_EQ(7U, waitedChildrenTicks("12 (a) R (b c)) S 1 2 3 4 5 6 7 8 9 10 30 12 3 4 20 0"));
    for (const char* text : {"", "1 (a", "1 (a) S", "1 (a) S 1 2 3 4 5 6 7 8 9 10 30 12 3"}) {
        EXPECT_EQ(0U, waitedChildrenTicks(text)) << text;
    }
}

TEST(CollectorPartsTest, ReadingManyThreadsLeavesTimeForOtherWork) {
    constexpr std::size_t kThreads = 450;
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    std::vector<std::thread> threads;
    while (threads.size() < kThreads) {
        threads.emplace_back([released] { released.wait(); });
    }
    ProcessProbe probe(::getpid());
    int calls = 0;

    const auto reading = probe.read([&calls] { ++calls; });

    release.set_value();
    for (std::thread& thread : threads) {
        thread.join();
    }
    ASSERT_TRUE(reading.has_value());
    EXPECT_LT(kThreads, reading->threads.size());
    EXPECT_EQ(2, calls);
}

TEST(CollectorPartsTest, ValuesAreFoundAtTheBeginningOfLines) {
    const std::string text = "NotVmRSS:\t1 kB\nVmRSS:\t  42 kB\nlast: 7";

    EXPECT_EQ(42U, findValue(text, "VmRSS"));
    EXPECT_EQ(7U, findValue(text, "last"));
    EXPECT_EQ(std::nullopt, findValue(text, "Vm"));
    EXPECT_EQ(std::nullopt, findValue("", "Vm"));
    EXPECT_EQ(std::nullopt, findValue("Vm:\n", "Vm"));
}

TEST(CollectorPartsTest, SeriesOfAnyLengthBecomesAtMostSixtyAverages) {
    CpuSeries series;
    for (int value = 0; value < 60; ++value) {
        series.add(value);
    }
    EXPECT_EQ(60U, series.points().size());
    EXPECT_EQ(1U, series.valuesPerPoint());

    series.add(60);
    EXPECT_EQ(31U, series.points().size());
    EXPECT_EQ(0.5, series.points().front());
    EXPECT_EQ(60, series.points().back());
    for (int value = 61; value < 100'000; ++value) {
        series.add(value);
        ASSERT_LE(series.points().size(), CpuSeries::kMostPoints);
    }
    EXPECT_EQ((static_cast<double>(series.valuesPerPoint()) - 1) / 2, series.points().front());
}

TEST(CollectorPartsTest, EscapedTextIsAlwaysValid) {
    EXPECT_EQ("\"a\\\"\\\\\\u000a\\u001f/\x7F\xC3\xA4\xF0\x9F\x98\x80\"",
              jsonString("a\"\\\n\x1F/\x7F\xC3\xA4\xF0\x9F\x98\x80"));
    const std::string replacement = "\xEF\xBF\xBD";
    for (const std::string& invalid :
         {std::string("\xFF"), std::string("\xC3"), std::string("\xC0\x80"),
          std::string("\xED\xA0\x80"), std::string("\xF4\x90\x80\x80"), std::string("\x80")}) {
        std::string expected;
        for (std::size_t index = 0; index < invalid.size(); ++index) {
            expected += replacement;
        }
        EXPECT_EQ(expected, xmlAttribute(invalid));
    }
    EXPECT_EQ(replacement + "&#9;" + replacement, xmlAttribute(std::string("\0\t\x1F", 3)));
    EXPECT_EQ("12.3", decimalText(12.34, 1));
    EXPECT_EQ("0.0", decimalText(std::numeric_limits<double>::infinity(), 1));
}

}  // namespace
}  // namespace kolvan::profiler
