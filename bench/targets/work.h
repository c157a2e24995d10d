#pragma once

#include <stdint.h>

/* Works for about so many microseconds. Each step needs the result of the one before it, so that
 * nothing but their number decides how long they take; part of whoever calls it. */
__attribute__((always_inline)) static inline void work(uint64_t microseconds) {
    uint64_t value = microseconds;
    for (uint64_t step = 0; step < 750 * microseconds; ++step) {
        value = value * 6364136223846793005U + 1442695040888963407U;
        __asm__ volatile("" : "+r"(value)); /* the compiler cannot foresee it */
    }
}
