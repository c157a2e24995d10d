// Lets chosen calls of the program that it is preloaded into fail; see tests/support/FailingCall.h.
//
//   KOLVAN_FAULT          "<kind> <first> <step> <error>": the calls of the kind that have the
//                         numbers first, first + step, ... fail; a step of 0 means the first only.
//                         The error is a number of <errno.h>; 0 kills the program instead, and -1
//                         holds the call until nobody has the pipe KOLVAN_FAULT_PIPE open for
//                         writing, and then lets it pass.
//   KOLVAN_FAULT_COUNTER  a file of eight bytes that counts the calls of the kind
//
// The kinds are the names given to `fails` below. "clock" is no failure: the time of day is another
// century's at every call that is chosen. Only calls that go through the dynamic linker are seen,
// which are those of the agent and of its libraries, but not the C library's among themselves.

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct Fault {
    char kind[16] = "";
    std::uint64_t first = 0;
    std::uint64_t step = 0;
    int error = 0;
    std::atomic<std::uint64_t>* counter = nullptr;  // none: everything passes
};

Fault fault;

// What the shim itself needs goes past its own functions.
std::atomic<std::uint64_t>* mapCounter(const char* file) {
    const auto descriptor =
        static_cast<int>(::syscall(SYS_openat, AT_FDCWD, file, O_RDWR | O_CLOEXEC));
    void* const memory =
        ::mmap(nullptr, sizeof(std::uint64_t), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    ::syscall(SYS_close, descriptor);
    return memory == MAP_FAILED ? nullptr : static_cast<std::atomic<std::uint64_t>*>(memory);
}

__attribute__((constructor)) void begin() {
    const char* const what = std::getenv("KOLVAN_FAULT");
    const char* const file = std::getenv("KOLVAN_FAULT_COUNTER");
    unsigned long first = 0;
    unsigned long step = 0;
    if (what != nullptr && file != nullptr &&
        std::sscanf(what, "%15s %lu %lu %d", fault.kind, &first, &step, &fault.error) == 4) {
        fault.first = first;
        fault.step = step;
        fault.counter = mapCounter(file);
    }
    // The agent's children are none of our business.
    ::unsetenv("LD_PRELOAD");
}

/// Waits for the end of the named pipe. Its opening does not wait for a writer: the pipe may be let
/// go of just then.
void hold() {
    const char* const pipe = std::getenv("KOLVAN_FAULT_PIPE");
    const auto end =
        static_cast<int>(::syscall(SYS_openat, AT_FDCWD, pipe, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    char byte = 0;
    while (end >= 0 && ::syscall(SYS_read, end, &byte, 1) != 0) {
        pollfd state{end, POLLIN, 0};
        ::syscall(SYS_poll, &state, 1, -1);
    }
    ::syscall(SYS_close, end);
}

/// Counts a call and decides about it; the error is left in errno.
bool fails(const char* kind) {
    if (fault.counter == nullptr || std::strcmp(kind, fault.kind) != 0) {
        return false;
    }
    const std::uint64_t number = fault.counter->fetch_add(1) + 1;
    const bool chosen = number == fault.first || (fault.step != 0 && number > fault.first &&
                                                  (number - fault.first) % fault.step == 0);
    if (chosen && fault.error == 0) {
        ::kill(::getpid(), SIGKILL);
    }
    if (chosen && fault.error < 0) {
        hold();
        return false;
    }
    if (chosen) {
        errno = fault.error;
    }
    return chosen;
}

template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

mode_t modeOf(int flags, std::va_list arguments) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

}  // namespace

// The real function of the same name and type.
#define NEXT(name) static const auto real = next<decltype(&name)>(#name)

extern "C" {

int pipe2(int* ends, int flags) noexcept {
    NEXT(pipe2);
    return fails("pipe2") ? -1 : real(ends, flags);
}

int eventfd(unsigned int count, int flags) noexcept {
    NEXT(eventfd);
    return fails("eventfd") ? -1 : real(count, flags);
}

int socket(int domain, int type, int protocol) noexcept {
    NEXT(socket);
    return fails("socket") ? -1 : real(domain, type, protocol);
}

// Of libcurl, whose own failure at start this is.
int curl_global_init(long flags) {
    constexpr int kFailed = 2;
    static const auto real = next<int (*)(long)>("curl_global_init");
    return fails("curl") ? kFailed : real(flags);
}

char* getcwd(char* path, std::size_t size) noexcept {
    NEXT(getcwd);
    return fails("getcwd") ? nullptr : real(path, size);
}

int mkdir(const char* path, mode_t mode) noexcept {
    NEXT(mkdir);
    return fails("mkdir") ? -1 : real(path, mode);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) noexcept {
    NEXT(pthread_create);
    return fails("thread") ? errno : real(thread, attributes, body, argument);
}

// A wrapper cannot return twice into its caller's frame; a child with memory of its own can do all
// that the other one does.
pid_t vfork() noexcept {
    return fails("spawn") ? -1 : ::fork();
}

int open(const char* path, int flags, ...) {
    NEXT(open);
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return fails("open") ? -1 : real(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
    NEXT(open64);
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return fails("open") ? -1 : real(path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...) {
    NEXT(openat);
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return fails("open") ? -1 : real(directory, path, flags, mode);
}

FILE* fopen(const char* path, const char* mode) {
    NEXT(fopen);
    return fails("open") ? nullptr : real(path, mode);
}

FILE* fopen64(const char* path, const char* mode) {
    NEXT(fopen64);
    return fails("open") ? nullptr : real(path, mode);
}

int fcntl(int descriptor, int command, ...) {
    NEXT(fcntl);
    std::va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return command == F_DUPFD_CLOEXEC && fails("dup") ? -1 : real(descriptor, command, argument);
}

int fcntl64(int descriptor, int command, ...) {
    NEXT(fcntl64);
    std::va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return command == F_DUPFD_CLOEXEC && fails("dup") ? -1 : real(descriptor, command, argument);
}

ssize_t read(int descriptor, void* buffer, std::size_t size) {
    NEXT(read);
    return fails("read") ? -1 : real(descriptor, buffer, size);
}

ssize_t write(int descriptor, const void* data, std::size_t size) {
    NEXT(write);
    return fails("write") ? -1 : real(descriptor, data, size);
}

ssize_t writev(int descriptor, const iovec* pieces, int count) {
    NEXT(writev);
    return fails("write") ? -1 : real(descriptor, pieces, count);
}

int poll(pollfd* descriptors, nfds_t count, int timeout) {
    NEXT(poll);
    return fails("poll") ? -1 : real(descriptors, count, timeout);
}

int ppoll(pollfd* descriptors, nfds_t count, const timespec* timeout, const sigset_t* mask) {
    NEXT(ppoll);
    return fails("ppoll") ? -1 : real(descriptors, count, timeout, mask);
}

int waitid(idtype_t type, id_t id, siginfo_t* info, int options) {
    NEXT(waitid);
    return fails("waitid") ? -1 : real(type, id, info, options);
}

int clock_gettime(clockid_t clock, timespec* now) noexcept {
    NEXT(clock_gettime);
    const int result = real(clock, now);
    constexpr time_t kCentury = 36525L * 24 * 60 * 60;
    if (clock == CLOCK_REALTIME && fails("clock")) {
        now->tv_sec += kCentury;
    }
    return result;
}

time_t time(time_t* now) noexcept {
    timespec result{};
    clock_gettime(CLOCK_REALTIME, &result);
    if (now != nullptr) {
        *now = result.tv_sec;
    }
    return result.tv_sec;
}

int gettimeofday(timeval* now, void*) noexcept {
    timespec result{};
    clock_gettime(CLOCK_REALTIME, &result);
    *now = {result.tv_sec, result.tv_nsec / 1000};
    return 0;
}

}  // extern "C"
