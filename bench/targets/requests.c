/* A server that begins a thread for each request, and serves two at a time.
 *
 * usage: target-requests COUNT MICROSECONDS
 *   MICROSECONDS  that a request takes, about */
#include <pthread.h>
#include <stdlib.h>

#include "work.h"

__attribute__((noinline)) static void serve(uint64_t microseconds) {
    work(microseconds);
}

static void* serveOne(void* microseconds) {
    serve(*(const uint64_t*)microseconds);
    return NULL;
}

int main(int argc, char* argv[]) {
    enum { AT_A_TIME = 2 };
    if (argc != 3) {
        return 2;
    }
    uint64_t microseconds = strtoull(argv[2], NULL, 10);
    for (long left = atol(argv[1]); left > 0; left -= AT_A_TIME) {
        pthread_t threads[AT_A_TIME];
        for (int i = 0; i < AT_A_TIME; ++i) {
            if (pthread_create(&threads[i], NULL, serveOne, &microseconds) != 0) {
                return 1;
            }
        }
        for (int i = 0; i < AT_A_TIME; ++i) {
            pthread_join(threads[i], NULL);
        }
    }
    return 0;
}
