#include "child.h"

#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

pid_t startChild(char* const* arguments, int* output) {
    pid_t child = -1;
    int ends[2] = {-1, -1};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (output != NULL && pipe2(ends, O_CLOEXEC) == 0) {
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    if (posix_spawn(&child, arguments[0], &actions, NULL, arguments, environ) != 0) {
        perror(arguments[0]);
        exit(1);
    }
    posix_spawn_file_actions_destroy(&actions);
    if (output != NULL) {
        close(ends[1]);
        *output = ends[0];
    }
    return child;
}

void waitForChild(pid_t child) {
    int status = -1;
    if (waitpid(child, &status, 0) != child || status != 0) {
        fprintf(stderr, "the child has failed\n");
        exit(1);
    }
}
