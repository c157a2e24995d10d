#include "tests/profiler/support/ChildOfTest.h"

#include <array>
#include <cstddef>
#include <exception>
#include <filesystem>
#include <system_error>

#include <grp.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::test {

namespace {

constexpr uid_t kOrdinaryUser = 65534;

void check(bool succeeded, const char* what) {
    if (!succeeded) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

}  // namespace

std::string resultOfChild(const std::function<std::string()>& work) {
    std::array<int, 2> ends{};
    check(::pipe(ends.data()) == 0, "pipe");
    const pid_t child = ::fork();
    check(child >= 0, "fork");
    if (child == 0) {
        std::string result;
        try {
            result = work();
        } catch (const std::exception& error) {
            result = std::string("exception: ") + error.what();
        }
        (void)::write(ends[1], result.data(), result.size());  // a short one fails the test
        ::_exit(0);
    }
    (void)::close(ends[1]);
    std::string result;
    std::array<char, 4096> bytes{};
    for (ssize_t count = 0; (count = ::read(ends[0], bytes.data(), bytes.size())) > 0;) {
        result.append(bytes.data(), static_cast<std::size_t>(count));
    }
    (void)::close(ends[0]);
    int status = 0;
    (void)::waitpid(child, &status, 0);
    return status == 0 ? result : "ended with status " + std::to_string(status);
}

void becomeOrdinaryUser() {
    if (::geteuid() != 0) {
        return;
    }
    check(::setgroups(0, nullptr) == 0, "setgroups");
    check(::setresgid(kOrdinaryUser, kOrdinaryUser, kOrdinaryUser) == 0, "setresgid");
    check(::setresuid(kOrdinaryUser, kOrdinaryUser, kOrdinaryUser) == 0, "setresuid");
    // Whoever gives up rights cannot be looked at afterwards, not even by himself.
    check(::prctl(PR_SET_DUMPABLE, 1) == 0, "prctl");
}

void becomeUserWith(int capability) {
    check(::prctl(PR_SET_KEEPCAPS, 1) == 0, "prctl");
    becomeOrdinaryUser();
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets{};
    const auto bit = static_cast<unsigned>(capability);
    sets.at(bit / 32).effective = sets.at(bit / 32).permitted = 1U << bit % 32;
    check(::syscall(SYS_capset, &header, sets.data()) == 0, "capset");
}

bool isReachableForOthers(const std::string& path) {
    namespace fs = std::filesystem;
    for (fs::path above = fs::path(path).parent_path();; above = above.parent_path()) {
        if ((fs::status(above).permissions() & fs::perms::others_exec) == fs::perms::none) {
            return false;
        }
        if (above == above.root_path()) {
            return true;
        }
    }
}

void refuseSystemCall(int number, int error) {
    std::array<sock_filter, 4> steps{{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    }};
    const sock_fprog program{static_cast<unsigned short>(steps.size()), steps.data()};
    check(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0, "prctl");
    check(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0, "seccomp");
}

}  // namespace kolvan::test
