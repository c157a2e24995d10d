/* Uploads every file of a directory at once, each on a thread of its own.
 *
 * usage: peer-upload ENDPOINT DIRECTORY */
#include <dirent.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

#include "post.h"

static CURL* template;

static void* upload(void* path) {
    CURL* const request = curl_easy_duphandle(template);
    struct curl_slist* headers = curl_slist_append(NULL, "Accept: */*");
    headers = curl_slist_append(headers, "Content-Type: multipart/form-data");
    curl_mime* const form = curl_mime_init(request);
    curl_mimepart* const file = curl_mime_addpart(form);
    curl_mime_name(file, "data");
    curl_mime_filedata(file, path);
    curl_mimepart* const submit = curl_mime_addpart(form);
    curl_mime_name(submit, "submit");
    curl_mime_data(submit, "send", CURL_ZERO_TERMINATED);
    curl_easy_setopt(request, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(request, CURLOPT_MIMEPOST, form);
    perform(request);
    curl_mime_free(form);
    curl_slist_free_all(headers);
    curl_easy_cleanup(request);
    free(path);
    return NULL;
}

int main(int argc, char* argv[]) {
    static pthread_t threads[65536];
    size_t count = 0;
    template = openTemplate(argv[1], "/api/collection-agent/trace/upload", NULL);
    const char* const name = argc > 2 ? argv[2] : ".";
    DIR* const directory = opendir(name);
    if (directory == NULL) {
        perror(name);
        return 1;
    }
    for (struct dirent* entry = readdir(directory); entry != NULL; entry = readdir(directory)) {
        char* path = NULL;
        if (entry->d_name[0] != '.' && asprintf(&path, "%s/%s", name, entry->d_name) > 0) {
            pthread_create(&threads[count++], NULL, upload, path);
        }
    }
    closedir(directory);
    while (count > 0) {
        pthread_join(threads[--count], NULL);
    }
    curl_easy_cleanup(template);
    return 0;
}
