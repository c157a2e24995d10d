#include "tests/companions/server/serve/RunningServer.h"

#include "tests/companions/server/cli/ServerProgram.h"
#include "tests/support/AgentProcess.h"

#include <rapidjson/document.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::test {

namespace {

constexpr int kFirstHandedOver = 3;
constexpr int kNotStarted = 127;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> found;
    for (std::string& text : texts) {
        found.push_back(text.data());
    }
    found.push_back(nullptr);
    return found;
}

std::vector<std::string> environmentOf(const ServerStart& start) {
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string text = *variable;
        if (!start.environment.contains(text.substr(0, text.find('=')))) {
            variables.push_back(text);
        }
    }
    for (const auto& [name, value] : start.environment) {
        variables.push_back(name + "=" + value);
    }
    if (!start.handedOver.empty()) {
        variables.push_back("LISTEN_FDS=" + std::to_string(start.handedOver.size()));
        variables.push_back("LISTEN_PID=" + std::string(12, '\0'));  // only the child knows it
    }
    return variables;
}

/// The text behind the last `before`, up to one of `ends`.
std::string behindLast(const std::string& text, const std::string& before, const char* ends) {
    const std::size_t found = text.rfind(before);
    if (found == std::string::npos) {
        return {};
    }
    const std::size_t begin = found + before.size();
    return text.substr(begin, text.find_first_of(ends, begin) - begin);
}

std::size_t countOf(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

constexpr char kReplaced[] = " goes on; this one ends";

std::string endOf(pid_t process) {
    int status = 0;
    while (::waitpid(process, &status, 0) < 0) {
        if (errno != EINTR) {
            fail("waitpid");
        }
    }
    return WIFSIGNALED(status) ? "killed by signal " + std::to_string(WTERMSIG(status))
                               : "exited with " + std::to_string(WEXITSTATUS(status));
}

bool hasEnded(pid_t process) {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
           info.si_pid == process;
}

std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char character : text) {
        result += character == '"' || character == '\\' ? std::string("\\") : std::string();
        result += character;
    }
    return result + '"';
}

}  // namespace

RunningServer::RunningServer(const ServerStart& start) : data(start.data) {
    // Successors become children of the test when those whose children they are have ended.
    if (::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0) {
        fail("prctl");
    }
    const std::string out = place.write("out", "");
    const std::string err = place.write("err", "");
    std::vector<std::string> words = {kServerProgram, "--data", start.data.string()};
    if (start.handedOver.empty()) {
        words.insert(words.end(), {"--listen", start.listen});
    }
    words.insert(words.end(), start.moreArguments.begin(), start.moreArguments.end());
    std::vector<std::string> variables = environmentOf(start);
    const std::vector<char*> arguments = pointers(words);
    const std::vector<char*> environment = pointers(variables);

    process = ::fork();
    if (process < 0) {
        fail("fork");
    }
    if (process == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::setpgid(0, 0);
        ::dup2(::open("/dev/null", O_RDONLY), 0);
        ::dup2(::open(out.c_str(), O_WRONLY | O_APPEND), 1);
        ::dup2(::open(err.c_str(), O_WRONLY | O_APPEND), 2);
        // Out of the way first: one may stand where another one belongs.
        const int count = static_cast<int>(start.handedOver.size());
        std::array<int, 8> copies{};
        for (int i = 0; i < count; ++i) {
            copies[static_cast<std::size_t>(i)] = ::fcntl(
                start.handedOver[static_cast<std::size_t>(i)], F_DUPFD, kFirstHandedOver + count);
        }
        for (int i = 0; i < count; ++i) {
            ::dup2(copies[static_cast<std::size_t>(i)], kFirstHandedOver + i);
        }
        ::close_range(static_cast<unsigned>(kFirstHandedOver + count), ~0U, 0);
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = start.softDescriptorLimit.value_or(limit.rlim_cur);
        ::setrlimit(RLIMIT_NOFILE, &limit);
        if (!start.handedOver.empty()) {
            const std::string number = std::to_string(::getpid());
            number.copy(variables.back().data() + sizeof "LISTEN_PID", number.size());
        }
        ::execve(arguments[0], arguments.data(), environment.data());
        ::_exit(kNotStarted);
    }
    group = process;
    ::setpgid(process, process);
}

RunningServer::~RunningServer() {
    ::kill(-group, SIGKILL);
    while (::waitpid(-group, nullptr, 0) > 0) {
    }
}

unsigned RunningServer::port() {
    if (listeningPort != 0) {
        return listeningPort;
    }
    std::string said;
    (void)lookUntil([&] {
        said = output();
        return said.find("Data are kept in") != std::string::npos || hasEnded(process);
    });
    if (said.find("Data are kept in") == std::string::npos) {
        throw std::runtime_error("the server does not serve: " + errors());
    }
    const std::string firstLine = said.substr(0, said.find('\n'));
    listeningPort = static_cast<unsigned>(std::stoul(behindLast(firstLine, ":", "")));
    return listeningPort;
}

void RunningServer::sendSignal(int number) const {
    if (::kill(process, number) != 0) {
        fail("kill");
    }
}

std::string RunningServer::waitForEnd() {
    if (!lookUntil([this] { return hasEnded(process); })) {
        return "still running";
    }
    ended = true;
    return endOf(process);
}

std::string RunningServer::waitForEndOf(pid_t replaced) {
    return lookUntil([&] { return hasEnded(replaced); }) ? endOf(replaced) : "still running";
}

pid_t RunningServer::restart() {
    const std::size_t before = countOf(errors(), kReplaced);
    sendSignal(SIGHUP);
    std::string said;
    const bool replaced = lookUntil([&] {
        said = errors();
        return countOf(said, kReplaced) > before || hasEnded(process);
    });
    if (!replaced || countOf(said, kReplaced) == before) {
        throw std::runtime_error("the server does not restart: " + said);
    }
    const std::string line = said.substr(0, said.rfind(kReplaced));
    return std::exchange(process, static_cast<pid_t>(std::stol(behindLast(line, "Process ", " "))));
}

bool RunningServer::waitForErrors(const std::string& text) const {
    return lookUntil([&] { return errors().find(text) != std::string::npos; });
}

std::string RunningServer::command(const std::vector<std::string>& words) const {
    std::vector<std::string> arguments = words;
    arguments.insert(arguments.end(), {"--data", data.string()});
    const ServerAnswer answer = runServer(arguments);
    if (answer.exitCode != 0) {
        throw std::runtime_error(answer.errors);
    }
    return answer.output.substr(0, answer.output.find('\n'));
}

ReceivedResponse ApiClient::request(const std::string& method, const std::string& path,
                                    const std::string& body) const {
    Client client(port);
    std::string text = method + ' ' + path + " HTTP/1.1\r\nHost: test\r\nConnection: close\r\n" +
                       "Authorization: Bearer " + token + "\r\n";
    if (!body.empty()) {
        text += "Content-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
                "\r\n";
    }
    (void)client.send(text + "\r\n" + body);  // the response tells
    return client.readResponse();
}

std::map<std::string, std::string> ApiClient::agents() const {
    std::map<std::string, std::string> found;
    std::string cursor;
    do {
        const ReceivedResponse answer = get("/api/v1/agents?limit=100" + cursor);
        rapidjson::Document page;
        page.Parse(answer.body.c_str());
        if (answer.status != 200) {
            throw std::runtime_error(std::to_string(answer.status) + " " + answer.body);
        }
        for (const auto& item : page["items"].GetArray()) {
            found[item["name"].GetString()] = item["id"].GetString();
        }
        cursor = page["next"].IsString() ? std::string("&cursor=") + page["next"].GetString() : "";
    } while (!cursor.empty());
    return found;
}

std::string ApiClient::agent(const std::string& name) const {
    std::string id;
    (void)lookUntil([&] {
        id = agents()[name];
        return !id.empty();
    });
    return id;
}

std::string ApiClient::collect(const std::string& agent,
                               const std::vector<std::string>& command) const {
    std::string words;
    for (const std::string& word : command) {
        words += (words.empty() ? "" : ",") + quoted(word);
    }
    const ReceivedResponse made =
        post("/api/v1/collections",
             "{\"agent\":" + quoted(agent) + ",\"target\":{\"command\":[" + words + "]}}");
    rapidjson::Document document;
    document.Parse(made.body.c_str());
    if (made.status != 201) {
        throw std::runtime_error(std::to_string(made.status) + " " + made.body);
    }
    return document["id"].GetString();
}

std::string ApiClient::member(const std::string& collection, const std::string& name) const {
    rapidjson::Document document;
    document.Parse(get("/api/v1/collections/" + collection).body.c_str());
    return document.IsObject() && document.HasMember(name.c_str()) &&
                   document[name.c_str()].IsString()
               ? document[name.c_str()].GetString()
               : "";
}

std::string ApiClient::waitForState(const std::string& collection, const std::string& state) const {
    std::string found;
    (void)lookUntil([&] {
        found = member(collection, "state");
        return found == state;
    });
    return found;
}

}  // namespace kolvan::test
