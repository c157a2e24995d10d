#pragma once

#include <stddef.h>

static inline size_t base64Size(size_t size) {
    return (size + 2) / 3 * 4;
}

/* Returns the end of what it has written. */
char* encodeBase64(const char* bytes, size_t size, char* text);
