/* Works below five calls that need 5 KB of the stack each.
 *
 * usage: target-frames MILLISECONDS */
#include <stdlib.h>

#include "work.h"

__attribute__((noinline)) static void atTheBottom(void) {
    work(1000);
}

__attribute__((noinline)) static void useStack(int calls) {
    enum { ROOM = 5000, PAGE = 4096 };
    char room[ROOM];
    /* A page of the stack that nobody has written to yet is none: the kernel copies no further. */
    room[0] = 0;
    room[PAGE] = 0;
    __asm__ volatile("" : : "r"(room) : "memory");
    if (calls > 1) {
        useStack(calls - 1);
    } else {
        atTheBottom();
    }
    __asm__ volatile("" : : "r"(room) : "memory");
}

int main(int argc, char* argv[]) {
    for (long left = argc > 1 ? atol(argv[1]) : 0; left > 0; --left) {
        useStack(5);
    }
    return 0;
}
