/* Runs a program and posts its output in pieces of 1 MiB, each before it reads the next one.
 *
 * usage: peer-pieces ENDPOINT PROGRAM [ARGUMENT...] */
#include <stdlib.h>
#include <unistd.h>

#include "child.h"
#include "post.h"

enum { kPiece = 1048576 };

int main(int argc, char* argv[]) {
    static char piece[kPiece];
    int output = -1;
    CURL* const template = openTemplate(argv[1], "/api/collection-agent/message", NULL);
    const pid_t child = startChild(argv + (argc > 2 ? 2 : 1), &output);
    ssize_t got = 1;
    while (got > 0) {
        size_t size = 0;
        while (size < kPiece && (got = read(output, piece + size, kPiece - size)) > 0) {
            size += (size_t)got;
        }
        if (size > 0) {
            char* const message = outputMessage(piece, size);
            post(template, message);
            free(message);
        }
    }
    waitForChild(child);
    curl_easy_cleanup(template);
    return 0;
}
