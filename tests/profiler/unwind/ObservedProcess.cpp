#include "tests/profiler/unwind/ObservedProcess.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <span>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <spawn.h>
#include <sys/ptrace.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::test {

namespace {

using profiler::FileDescriptor;

std::pair<FileDescriptor, FileDescriptor> makePipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

pid_t start(const std::vector<std::string>& command, int input, int output) {
    std::vector<char*> arguments;
    for (const std::string& argument : command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    (void)::posix_spawn_file_actions_init(&actions);  // these two fail for lack of memory only
    (void)::posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    (void)::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    pid_t child = -1;
    const int error =
        ::posix_spawn(&child, arguments.front(), &actions, nullptr, arguments.data(), environ);
    (void)::posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), command.front());
    }
    return child;
}

/// One line of /proc/PID/maps.
struct MapsLine {
    explicit MapsLine(const std::string& line) {
        std::istringstream words(line);
        char separator = 0;
        unsigned major = 0;
        unsigned minor = 0;
        words >> std::hex >> begin >> separator >> end >> rights >> offset >> major >> separator >>
            minor >> std::dec >> inode >> std::ws;
        device = makedev(major, minor);
        std::getline(words, path);
    }

    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    std::uint64_t offset = 0;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::string rights;
    std::string path;
};

std::vector<MapsLine> readMaps(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/maps");
    std::vector<MapsLine> lines;
    for (std::string line; std::getline(file, line);) {
        lines.emplace_back(line);
    }
    return lines;
}

}  // namespace

ObservedProcess::ObservedProcess(const std::vector<std::string>& command) {
    auto [childInput, ownInput] = makePipe();
    auto [ownOutput, childOutput] = makePipe();
    input = std::move(ownInput);
    output = std::move(ownOutput);
    child = start(command, childInput.get(), childOutput.get());
}

ObservedProcess::~ObservedProcess() {
    (void)::kill(child, SIGKILL);  // it may be stopped, and may have ended
    (void)::waitpid(child, nullptr, 0);
}

std::vector<std::uint64_t> ObservedProcess::readWords(std::size_t count) {
    std::vector<std::uint64_t> words(count);
    const auto bytes = std::as_writable_bytes(std::span(words));
    std::size_t length = 0;
    while (length < bytes.size()) {
        const ssize_t read = ::read(output.get(), bytes.data() + length, bytes.size() - length);
        if (read <= 0) {
            throw std::runtime_error("The child ended before it had written everything.");
        }
        length += static_cast<std::size_t>(read);
    }
    return words;
}

profiler::AddressSpace ObservedProcess::addressSpace(profiler::ObjectStore& store) const {
    profiler::AddressSpace space;
    for (const MapsLine& line : readMaps(child)) {
        if (line.rights.find('x') != std::string::npos) {
            space.map({.begin = line.begin,
                       .end = line.end,
                       .fileOffset = line.offset,
                       .path = line.path,
                       .object = store.find({.process = child,
                                             .begin = line.begin,
                                             .end = line.end,
                                             .device = line.device,
                                             .inode = line.inode,
                                             .path = line.path})});
        }
    }
    return space;
}

std::uint64_t ObservedProcess::endOfMapping(std::uint64_t address) const {
    for (const MapsLine& line : readMaps(child)) {
        if (address >= line.begin && address < line.end) {
            return line.end;
        }
    }
    throw std::runtime_error("The child has mapped nothing there.");
}

std::vector<std::byte> ObservedProcess::memory(std::uint64_t begin, std::uint64_t end) const {
    std::vector<std::byte> bytes(end - begin);
    const iovec here{bytes.data(), bytes.size()};
    const iovec there{reinterpret_cast<void*>(begin), bytes.size()};
    if (::process_vm_readv(child, &here, 1, &there, 1, 0) != static_cast<ssize_t>(bytes.size())) {
        throw std::system_error(errno, std::generic_category(), "process_vm_readv");
    }
    return bytes;
}

ReportedStack::ReportedStack(ObservedProcess& process) {
    const auto words = process.readWords(registers.values.size());
    std::copy(words.begin(), words.end(), registers.values.begin());
    addresses = process.readWords(process.readWords(1).front());
}

profiler::Registers readRegisters(pid_t child) {
    user_regs_struct user{};
    if (::ptrace(PTRACE_GETREGS, child, nullptr, &user) != 0) {
        throw std::system_error(errno, std::generic_category(), "PTRACE_GETREGS");
    }
    return {{user.rax, user.rdx, user.rcx, user.rbx, user.rsi, user.rdi, user.rbp, user.rsp,
             user.r8, user.r9, user.r10, user.r11, user.r12, user.r13, user.r14, user.r15,
             user.rip}};
}

}  // namespace kolvan::test
