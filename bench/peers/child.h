#pragma once

#include <sys/types.h>

/* Starts a program whose standard output comes out of *output, or goes to the null device where
 * that is NULL. */
pid_t startChild(char* const* arguments, int* output);

/* Waits for its end and ends the program unless the child has succeeded. */
void waitForChild(pid_t child);
