#include "companions/profiler/engine/TraceStops.h"

#include <sys/ptrace.h>
#include <sys/wait.h>

namespace kolvan::profiler {

bool nextStop(siginfo_t& stop) {
    do {
        stop = {};
    } while (::waitid(P_ALL, 0, &stop, WSTOPPED | WNOHANG | __WALL) == 0 && stop.si_pid != 0 &&
             stop.si_code != CLD_TRAPPED);
    return stop.si_pid != 0;
}

int eventOf(const siginfo_t& stop) {
    return stop.si_status >> 8;
}

int signalOf(const siginfo_t& stop) {
    return stop.si_status & 0xFF;
}

pid_t childBy(pid_t thread, int event) {
    const bool tells =
        event == PTRACE_EVENT_CLONE || event == PTRACE_EVENT_FORK || event == PTRACE_EVENT_VFORK;
    unsigned long child = 0;
    return tells && ::ptrace(PTRACE_GETEVENTMSG, thread, nullptr, &child) == 0
               ? static_cast<pid_t>(child)
               : 0;
}

bool findEnd(pid_t id, siginfo_t& news) {
    news = {};
    return ::waitid(id == 0 ? P_ALL : P_PID, static_cast<id_t>(id), &news,
                    WEXITED | WNOHANG | WNOWAIT | __WALL) == 0 &&
           news.si_pid != 0;
}

bool isEnd(const siginfo_t& news) {
    return news.si_code == CLD_EXITED || news.si_code == CLD_KILLED || news.si_code == CLD_DUMPED;
}

}  // namespace kolvan::profiler
