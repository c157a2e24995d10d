// A collector that does what its arguments say, for tests of the agent.
//
// A run reads instructions: "execute" runs take them from the arguments, collections from the lines
// of the option file. An instruction is a word followed by its parameters, each a word of its own.
// A channel is "out", "err" or "fb".
//
//   out TEXT | err TEXT | fb TEXT    writes the text and a line feed
//   bytes CHANNEL HEXADECIMAL        writes exactly these bytes
//   lines CHANNEL COUNT PREFIX       writes so many lines "<prefix> <number>", each by a call
//   flood CHANNEL BYTES              writes numbered lines of eight bytes, as many bytes as told
//   describe                         tells on standard output how the run was started
//   environment NAME                 writes the value of a variable, or "unset"
//   wait FIFO                        reads the named pipe to its end
//   control                          serves commands until "stop" or "cancel" (see below)
//   trace NAME TEXT                  writes a file below the result directory
//   ignore SIGNAL | until SIGNAL     ignores a signal; waits until it has come
//   hang                             does nothing until a signal ends it
//   heir FIFO                        leaves a child behind that holds all descriptors and reads the
//                                    named pipe to its end
//   exit CODE | die SIGNAL           ends the run
//
// A server gives the instructions as the command that is to be profiled; the options of a real
// collector before them are passed over.
//
// "--version" writes the file "version.txt" that lies beside the program. "-r DIRECTORY --command
// COMMAND" passes a command to the collection of that directory; "exit-N" passes nothing and ends
// with N. A collection answers a command with the line "command: <command>".

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

// A run that nobody ends must not outlive its test for long.
constexpr unsigned kLifeSeconds = 150;

constexpr int kUsageError = 64;

std::vector<std::string> arguments;
std::string resultDirectory;
int feedbackDescriptor = -1;

void writeAll(int descriptor, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(descriptor, text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR) {
            std::exit(kUsageError);
        }
        written += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
}

int descriptorOf(const std::string& channel) {
    if (channel == "out") {
        return STDOUT_FILENO;
    }
    if (channel == "err") {
        return STDERR_FILENO;
    }
    if (channel == "fb") {
        return feedbackDescriptor;
    }
    throw std::invalid_argument("no channel: " + channel);
}

void print(const std::string& line) {
    writeAll(STDOUT_FILENO, line + "\n");
}

std::string readWhole(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        throw std::invalid_argument("cannot read " + file.string());
    }
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t begin = 0;
    while (begin < text.size()) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

void waitForEndOf(const std::string& fifo) {
    const int descriptor = ::open(fifo.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        throw std::invalid_argument("cannot open " + fifo);
    }
    char byte = 0;
    while (::read(descriptor, &byte, 1) > 0) {
    }
    ::close(descriptor);
}

fs::path controlPipe() {
    fs::path pipe = fs::path(resultDirectory) / "control";
    if (::mkfifo(pipe.c_str(), 0600) != 0 && errno != EEXIST) {
        throw std::invalid_argument("cannot make " + pipe.string());
    }
    return pipe;
}

std::string readCommand(int pipe) {
    std::string command;
    char character = 0;
    while (::read(pipe, &character, 1) == 1 && character != '\n') {
        command += character;
    }
    return command;
}

void serveCommands() {
    // Open for both, so that the pipe does not end between two commands.
    const int pipe = ::open(controlPipe().c_str(), O_RDWR | O_CLOEXEC);
    if (pipe < 0) {
        throw std::invalid_argument("cannot open the control pipe");
    }
    writeAll(feedbackDescriptor, "<ready/>");
    std::string command;
    while (command != "stop" && command != "cancel") {
        command = readCommand(pipe);
        print("command: " + command);
    }
    ::close(pipe);
}

int passCommand(const std::string& command) {
    if (command.rfind("exit-", 0) == 0) {
        return std::atoi(command.c_str() + 5);
    }
    const int pipe = ::open(controlPipe().c_str(), O_WRONLY | O_CLOEXEC);
    if (pipe < 0) {
        return kUsageError;
    }
    writeAll(pipe, command + "\n");
    print("passed: " + command);
    return 0;
}

void writeTrace(const std::string& name, const std::string& text) {
    const fs::path file = fs::path(resultDirectory) / name;
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << text;
}

std::string decodeHexadecimal(const std::string& digits) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

void writeLines(int descriptor, int count, const std::string& prefix) {
    for (int i = 0; i < count; ++i) {
        writeAll(descriptor, prefix + ' ' + std::to_string(i) + '\n');
    }
}

void flood(int descriptor, std::uint64_t bytes) {
    std::string block;
    for (std::uint64_t line = 0; bytes > 0; ++line) {
        char text[32];
        const int length =
            std::snprintf(text, sizeof(text), "%07u\n", static_cast<unsigned>(line % 10000000U));
        const std::uint64_t part = std::min<std::uint64_t>(bytes, static_cast<unsigned>(length));
        block.append(text, static_cast<std::size_t>(part));
        bytes -= part;
        if (block.size() >= 65536 || bytes == 0) {
            writeAll(descriptor, block);
            block.clear();
        }
    }
}

/// Line of /proc/self/status that begins with the name.
std::string statusLine(const std::string& name) {
    for (const std::string& line : linesOf(readWhole("/proc/self/status"))) {
        if (line.rfind(name, 0) == 0) {
            return line.substr(line.find_first_not_of("\t ", name.size()));
        }
    }
    return "?";
}

std::string accessOf(int descriptor) {
    switch (::fcntl(descriptor, F_GETFL) & O_ACCMODE) {
        case O_RDONLY:
            return "reads";
        case O_WRONLY:
            return "writes";
        default:
            return "reads and writes";
    }
}

void describe() {
    for (const std::string& argument : arguments) {
        print("argument: " + argument);
    }
    print("directory: " + fs::current_path().string());
    for (int descriptor = 0; descriptor < 4096; ++descriptor) {
        std::error_code error;
        const fs::path target =
            fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor), error);
        if (!error) {
            const std::string kind = target.string().substr(0, target.string().find(':'));
            print("descriptor: " + std::to_string(descriptor) + " " + kind + " " +
                  accessOf(descriptor));
        }
    }
    char byte = 0;
    print("input: " + std::to_string(::read(STDIN_FILENO, &byte, 1)));
    print("process: " + std::to_string(::getpid()));
    print("group: " + std::to_string(::getpgid(0)));
    print("parent: " + std::to_string(::getppid()));
    print("blocked: " + statusLine("SigBlk:"));
    print("ignored: " + statusLine("SigIgn:"));
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    print("descriptor limit: " + std::to_string(limit.rlim_cur));
}

void waitForSignal(int number) {
    sigset_t awaited;
    sigemptyset(&awaited);
    sigaddset(&awaited, number);
    ::sigprocmask(SIG_BLOCK, &awaited, nullptr);
    writeAll(feedbackDescriptor, "<ready/>");
    int received = 0;
    ::sigwait(&awaited, &received);
    print("signal: " + std::to_string(received));
}

void leaveHeir(const std::string& fifo) {
    if (::fork() == 0) {
        ::alarm(kLifeSeconds);
        waitForEndOf(fifo);
        ::_exit(0);
    }
}

[[noreturn]] void die(int number) {
    // A core file would be left behind otherwise.
    const rlimit none{0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
    ::raise(number);
    std::exit(kUsageError);
}

class Instructions {
public:
    explicit Instructions(std::vector<std::string> words) : words(std::move(words)) {}

    void perform() {
        while (next < words.size()) {
            performOne(take());
        }
    }

private:
    std::string take() {
        if (next == words.size()) {
            throw std::invalid_argument("a parameter is missing");
        }
        return words[next++];
    }

    int takeNumber() { return std::stoi(take()); }

    void performOne(const std::string& word) {
        if (word == "out" || word == "err" || word == "fb") {
            writeAll(descriptorOf(word), take() + "\n");
        } else if (word == "bytes") {
            const int descriptor = descriptorOf(take());
            writeAll(descriptor, decodeHexadecimal(take()));
        } else if (word == "lines") {
            const int descriptor = descriptorOf(take());
            const int count = takeNumber();
            writeLines(descriptor, count, take());
        } else if (word == "flood") {
            const int descriptor = descriptorOf(take());
            flood(descriptor, std::stoull(take()));
        } else if (word == "describe") {
            describe();
        } else if (word == "environment") {
            const char* const value = std::getenv(take().c_str());
            print(value != nullptr ? value : "unset");
        } else if (word == "wait") {
            waitForEndOf(take());
        } else if (word == "control") {
            serveCommands();
        } else if (word == "trace") {
            const std::string name = take();
            writeTrace(name, take());
        } else if (word == "-r") {
            resultDirectory = take();
        } else if (word == "--profile" || word == "--frequency" || word == "--duration" ||
                   word == "--pid") {
            (void)take();
        } else if (word != "--" && word != "--no-children") {
            performSignalOrEnd(word);
        }
    }

    void performSignalOrEnd(const std::string& word) {
        if (word == "ignore") {
            ::signal(takeNumber(), SIG_IGN);
        } else if (word == "until") {
            waitForSignal(takeNumber());
        } else if (word == "hang") {
            writeAll(feedbackDescriptor, "<ready/>");
            for (;;) {
                ::pause();
            }
        } else if (word == "heir") {
            leaveHeir(take());
        } else if (word == "exit") {
            std::exit(takeNumber());
        } else if (word == "die") {
            die(takeNumber());
        } else {
            throw std::invalid_argument("unknown: '" + word + "'");
        }
    }

    const std::vector<std::string> words;
    std::size_t next = 0;
};

/// Arguments without the feedback options at their end, which are taken note of.
std::vector<std::string> takeFeedbackOptions(std::vector<std::string> words) {
    const std::size_t count = words.size();
    if (count >= 4 && words[count - 4] == "--ui-output-format" && words[count - 3] == "xml" &&
        words[count - 2] == "--ui-output-fd") {
        feedbackDescriptor = std::stoi(words[count - 1]);
        words.resize(count - 4);
    }
    return words;
}

int run(const std::vector<std::string>& words) {
    if (words.size() == 1 && words[0] == "--version") {
        writeAll(STDOUT_FILENO,
                 readWhole(fs::read_symlink("/proc/self/exe").parent_path() / "version.txt"));
        return 0;
    }
    if (words.size() == 2 && words[0] == "--option-file") {
        Instructions(linesOf(readWhole(words[1]))).perform();
        return 0;
    }
    if (words.size() == 4 && words[0] == "-r" && words[2] == "--command") {
        resultDirectory = words[1];
        return passCommand(words[3]);
    }
    Instructions(words).perform();
    return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
    ::alarm(kLifeSeconds);
    arguments.assign(argv + 1, argv + argc);
    try {
        return run(takeFeedbackOptions(arguments));
    } catch (const std::exception& error) {
        writeAll(STDERR_FILENO, std::string("scripted collector: ") + error.what() + "\n");
        return kUsageError;
    }
}
