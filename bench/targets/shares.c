/* A program that knows where its time goes: three functions take turns of random length, and each
 * turn is measured by the clock that counts the thread's own processor time. At the end it writes
 * the share of the function "hottest" into a file.
 *
 * usage: target-shares MILLISECONDS FILE */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "work.h"

__attribute__((noinline)) static void hottest(uint64_t microseconds) {
    work(microseconds);
}

__attribute__((noinline)) static void second(uint64_t microseconds) {
    work(microseconds + 1); /* or the compiler makes one function of them */
}

__attribute__((noinline)) static void third(uint64_t microseconds) {
    work(microseconds + 2);
}

static double now(void) {
    struct timespec time;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return (double)time.tv_sec + 1e-9 * (double)time.tv_nsec;
}

int main(int argc, char* argv[]) {
    static void (*const functions[])(uint64_t) = {hottest, hottest, hottest, second, second, third};
    enum { COUNT = sizeof functions / sizeof functions[0] };
    if (argc != 3) {
        return 2;
    }
    double inHottest = 0;
    double inAll = 0;
    while (inAll < 1e-3 * atof(argv[1])) {
        void (*const function)(uint64_t) = functions[rand() % COUNT];
        const uint64_t microseconds = 200 + (uint64_t)(rand() % 3000);
        const double begin = now();
        function(microseconds);
        const double taken = now() - begin;
        inAll += taken;
        inHottest += function == hottest ? taken : 0;
    }
    FILE* const file = fopen(argv[2], "w");
    if (file == NULL) {
        return 1;
    }
    fprintf(file, "%.6f\n", inHottest / inAll);
    return fclose(file) == 0 ? 0 : 1;
}
