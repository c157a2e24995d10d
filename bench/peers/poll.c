/* Asks for commands until it is told to stop.
 *
 * usage: peer-poll ENDPOINT [CERTIFICATE] */
#include <string.h>

#include "post.h"

int main(int argc, char* argv[]) {
    CURL* const template =
        openTemplate(argv[1], "/api/collection-agent/message", argc > 2 ? argv[2] : NULL);
    post(template, "{\"messageType\":\"connect\",\"messageParameters\":{\"hostname\":\"peer\"}}");
    /* As long as the agent's own text, which carries its name and its token. */
    while (strstr(post(template,
                       "{\"messageType\":\"commands:get\",\"messageParameters\":{\"accessToken\":"
                       "\"0123456789abcdef\",\"agentUuid\":\"01234567-89ab-4def-8123-456789abcdef\""
                       "}}"),
                  "stop") == NULL) {
    }
    curl_easy_cleanup(template);
    return 0;
}
