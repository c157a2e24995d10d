/* A server that begins a thread for each request, and serves two at a time. A request takes about
 * 100 us.
 *
 * usage: target-requests COUNT */
#include <pthread.h>
#include <stdlib.h>

#include "work.h"

__attribute__((noinline)) static void serve(void) {
    work(100);
}

static void* serveOne(void* unused) {
    (void)unused;
    serve();
    return NULL;
}

int main(int argc, char* argv[]) {
    enum { AT_A_TIME = 2 };
    for (long left = argc > 1 ? atol(argv[1]) : 0; left > 0; left -= AT_A_TIME) {
        pthread_t threads[AT_A_TIME];
        for (int i = 0; i < AT_A_TIME; ++i) {
            if (pthread_create(&threads[i], NULL, serveOne, NULL) != 0) {
                return 1;
            }
        }
        for (int i = 0; i < AT_A_TIME; ++i) {
            pthread_join(threads[i], NULL);
        }
    }
    return 0;
}
