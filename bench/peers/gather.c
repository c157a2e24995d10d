/* Runs a program and posts its output as it comes, gathered for 20 ms before each request: one
 * thread reads, the other one waits and posts.
 *
 * usage: peer-gather ENDPOINT PROGRAM [ARGUMENT...] */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "child.h"
#include "post.h"

enum { kChunk = 65536 };

struct Text {
    char* bytes;
    size_t size;
    size_t room;
};

static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
static struct Text gathered; /* guarded by mutex, as is the next */
static int ended = 0;
static int output = -1;

static void append(struct Text* text, const char* bytes, size_t size) {
    if (text->size + size > text->room) {
        text->room = 2 * (text->size + size);
        text->bytes = realloc(text->bytes, text->room);
        if (text->bytes == NULL) {
            abort();
        }
    }
    memcpy(text->bytes + text->size, bytes, size);
    text->size += size;
}

static void* readOutput(void* unused) {
    static char chunk[kChunk];
    ssize_t got = 0;
    do {
        got = read(output, chunk, kChunk);
        pthread_mutex_lock(&mutex);
        append(&gathered, chunk, got > 0 ? (size_t)got : 0);
        ended = got <= 0;
        pthread_cond_signal(&changed);
        pthread_mutex_unlock(&mutex);
    } while (got > 0);
    return unused;
}

/* Waits for text, then for what follows it within 20 ms. Empty at the end. */
static struct Text takeText(void) {
    const struct timespec delay = {0, 20000000};
    pthread_mutex_lock(&mutex);
    while (gathered.size == 0 && !ended) {
        pthread_cond_wait(&changed, &mutex);
    }
    pthread_mutex_unlock(&mutex);
    nanosleep(&delay, NULL);
    pthread_mutex_lock(&mutex);
    const struct Text text = gathered;
    memset(&gathered, 0, sizeof(gathered));
    pthread_mutex_unlock(&mutex);
    return text;
}

int main(int argc, char* argv[]) {
    pthread_t reader;
    CURL* const template = openTemplate(argv[1], "/api/collection-agent/message", NULL);
    const pid_t child = startChild(argv + (argc > 2 ? 2 : 1), &output);
    pthread_create(&reader, NULL, readOutput, NULL);
    for (struct Text text = takeText(); text.size > 0; text = takeText()) {
        char* const message = outputMessage(text.bytes, text.size);
        free(text.bytes);
        post(template, message);
        free(message);
    }
    pthread_join(reader, NULL);
    waitForChild(child);
    curl_easy_cleanup(template);
    return 0;
}
