/* Runs a program and says what it took. A small program does this because the memory that the
 * kernel reports for a child is never less than what its parent had when it was forked.
 *
 * usage: kolvan-bench-measure DESCRIPTOR PROGRAM [ARGUMENT...]
 *
 * Prints on the descriptor one line of JSON when the program has been started and one at its end:
 * times in seconds, memory in bytes. "cpu" counts the processes that the program waited for,
 * "ownCpu" does not.
 */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static double now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + 1e-9 * (double)time.tv_nsec;
}

static double seconds(struct timeval time) {
    return (double)time.tv_sec + 1e-6 * (double)time.tv_usec;
}

/* Processor time of the processes that an ended one has waited for; it has not been waited for
 * itself. */
static double cpuOfChildren(pid_t ended) {
    char path[64];
    char text[1024] = "";
    long long user = 0;
    long long system = 0;
    snprintf(path, sizeof(path), "/proc/%d/stat", (int)ended);
    FILE* const stat = fopen(path, "r");
    if (stat == NULL) {
        return 0;
    }
    text[fread(text, 1, sizeof(text) - 1, stat)] = '\0';
    fclose(stat);
    sscanf(strrchr(text, ')') + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %lld %lld",
           &user, &system);
    return (double)(user + system) / (double)sysconf(_SC_CLK_TCK);
}

int main(int argc, char* argv[]) {
    if (argc < 3) {
        return 2;
    }
    const int results = atoi(argv[1]);
    const pid_t parent = getpid();
    const double begin = now();
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() == parent) {
            close(results);
            execvp(argv[2], argv + 2);
            perror(argv[2]);
        }
        _exit(127);
    }
    dprintf(results, "{\"pid\":%d,\"begin\":%.9f}\n", (int)child, begin);
    siginfo_t info;
    waitid(P_PID, (id_t)child, &info, WEXITED | WNOWAIT);
    const double end = now();
    const double children = cpuOfChildren(child);
    int status = 0;
    struct rusage used;
    wait4(child, &status, 0, &used);
    const double cpu = seconds(used.ru_utime) + seconds(used.ru_stime);
    dprintf(results,
            "{\"status\":%d,\"wall\":%.6f,\"end\":%.9f,\"cpu\":%.6f,\"ownCpu\":%.6f,"
            "\"memory\":%ld,\"switches\":%ld}\n",
            WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), end - begin, end, cpu,
            cpu - children, used.ru_maxrss * 1024, used.ru_nvcsw + used.ru_nivcsw);
    return 0;
}
