/* The collector of the benchmarks: writes what it is told to, as fast or as regularly as it is
 * told.
 *
 *   --version              what an installed collector says
 *   nothing                ends at once
 *   line                   one line
 *   sleep MILLISECONDS
 *   flood BYTES            as fast as the pipe takes it
 *   pace RATE SECONDS      RATE bytes a second, a piece every millisecond
 *   lines COUNT SECONDS    lines of 80 bytes, evenly, each written by itself and beginning with the
 *                          time: nanoseconds of the monotonic clock
 *   --option-file FILE     links the files of the directory that FILE names into the result
 */
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

enum { kPiece = 65536, kLine = 80 };

static char piece[kPiece];

static void fail(const char* what) {
    perror(what);
    exit(1);
}

static void put(const char* data, size_t size) {
    while (size > 0) {
        const ssize_t written = write(STDOUT_FILENO, data, size);
        if (written <= 0) {
            fail("write");
        }
        data += written;
        size -= (size_t)written;
    }
}

static void fillPiece(void) {
    for (size_t i = 0; i < kPiece; ++i) {
        piece[i] = (char)(i % kLine == kLine - 1 ? '\n' : 'A' + i % 61);
    }
}

static void flood(size_t bytes) {
    fillPiece();
    for (; bytes > kPiece; bytes -= kPiece) {
        put(piece, kPiece);
    }
    put(piece, bytes);
}

static long long now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

static void waitUntil(long long due) {
    const struct timespec time = {due / 1000000000LL, due % 1000000000LL};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, NULL) != 0) {
    }
}

static void pace(long long rate, long long seconds) {
    const long long begin = now();
    fillPiece();
    for (long long tick = 1; tick <= seconds * 1000; ++tick) {
        waitUntil(begin + tick * 1000000LL);
        for (long long left = rate / 1000; left > 0; left -= kPiece) {
            put(piece, (size_t)(left < kPiece ? left : kPiece));
        }
    }
}

static void lines(long long count, long long seconds) {
    const long long begin = now();
    char line[kLine + 1];
    memset(line, '.', kLine);
    line[kLine - 1] = '\n';
    for (long long number = 0; number < count; ++number) {
        waitUntil(begin + number * seconds * 1000000000LL / count);
        snprintf(line, kLine, "%020lld", now());
        line[20] = ' ';
        put(line, kLine);
    }
}

static void sleepFor(long long milliseconds) {
    waitUntil(now() + milliseconds * 1000000LL);
}

/* The option file lies in <result directory>/config and names a directory of prepared traces. */
static void linkTraces(const char* optionFile) {
    char source[4096] = "";
    char target[4096];
    FILE* options = fopen(optionFile, "r");
    if (options == NULL || fgets(source, sizeof(source), options) == NULL) {
        fail(optionFile);
    }
    fclose(options);
    source[strcspn(source, "\n")] = '\0';
    const char* const config = strstr(optionFile, "/config/");
    snprintf(target, sizeof(target), "%.*s/data", (int)(config - optionFile), optionFile);
    DIR* const directory = opendir(source);
    if (directory == NULL || mkdir(target, 0700) != 0) {
        fail(source);
    }
    const int from = dirfd(directory);
    const int to = open(target, O_RDONLY | O_DIRECTORY);
    for (struct dirent* entry = readdir(directory); entry != NULL; entry = readdir(directory)) {
        if (entry->d_name[0] != '.' && linkat(from, entry->d_name, to, entry->d_name, 0) != 0) {
            fail(entry->d_name);
        }
    }
    closedir(directory);
    close(to);
}

int main(int argc, char* argv[]) {
    const char* const verb = argc > 1 ? argv[1] : "";
    const char* const first = argc > 2 ? argv[2] : "0";
    const char* const second = argc > 3 ? argv[3] : "0";
    if (strcmp(verb, "--version") == 0) {
        puts("build 1");
    } else if (strcmp(verb, "--option-file") == 0) {
        linkTraces(first);
    } else if (strcmp(verb, "line") == 0) {
        puts("a line of output");
    } else if (strcmp(verb, "sleep") == 0) {
        sleepFor(atoll(first));
    } else if (strcmp(verb, "flood") == 0) {
        flood((size_t)atoll(first));
    } else if (strcmp(verb, "pace") == 0) {
        pace(atoll(first), atoll(second));
    } else if (strcmp(verb, "lines") == 0) {
        lines(atoll(first), atoll(second));
    } else if (strcmp(verb, "nothing") != 0) {
        fprintf(stderr, "kolvan-bench-collector: what is \"%s\"?\n", verb);
        return 2;
    }
    return 0;
}
