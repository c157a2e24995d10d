#include "post.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "base64.h"

enum { kReplySize = 65536 };

struct Reply {
    char text[kReplySize];
    size_t size;
};

static size_t appendToReply(const char* data, size_t size, size_t count, void* target) {
    struct Reply* const reply = target;
    const size_t room = kReplySize - 1 - reply->size;
    const size_t taken = size * count < room ? size * count : room;
    memcpy(reply->text + reply->size, data, taken);
    reply->size += taken;
    return taken;
}

CURL* openTemplate(const char* endpoint, const char* path, const char* certificate) {
    char url[4096];
    curl_global_init(CURL_GLOBAL_ALL);
    CURL* const template = curl_easy_init();
    snprintf(url, sizeof(url), "%s%s", endpoint, path);
    curl_easy_setopt(template, CURLOPT_URL, url);
    if (certificate != NULL) {
        curl_easy_setopt(template, CURLOPT_CAINFO, certificate);
        curl_easy_setopt(template, CURLOPT_SSL_VERIFYHOST, 0L);
        curl_easy_setopt(template, CURLOPT_SSL_VERIFYPEER, 0L);
    }
    return template;
}

void perform(CURL* request) {
    const CURLcode code = curl_easy_perform(request);
    if (code != CURLE_OK) {
        fprintf(stderr, "%s\n", curl_easy_strerror(code));
        exit(1);
    }
}

const char* post(CURL* template, const char* text) {
    static __thread struct Reply reply;
    reply.size = 0;
    CURL* const request = curl_easy_duphandle(template);
    curl_easy_setopt(request, CURLOPT_POSTFIELDS, text);
    curl_easy_setopt(request, CURLOPT_WRITEFUNCTION, appendToReply);
    curl_easy_setopt(request, CURLOPT_WRITEDATA, &reply);
    perform(request);
    curl_easy_cleanup(request);
    reply.text[reply.size] = '\0';
    return reply.text;
}

char* outputMessage(const char* bytes, size_t size) {
    static const char head[] =
        "{\"messageType\":\"collector:stdout\",\"messageParameters\":{\"id\":\"1\",\"message\":\"";
    char* const text = malloc(sizeof(head) + base64Size(size) + 64);
    if (text == NULL) {
        abort();
    }
    char* end = stpcpy(text, head);
    end = encodeBase64(bytes, size, end);
    sprintf(end, "\",\"size\":\"%zu\"}}", size);
    return text;
}
