/* Posting as the agent's design asks for it: each request on a fresh duplicate of one handle, and
 * so on a connection of its own. */
#pragma once

#include <curl/curl.h>

#include <stddef.h>

/* certificate: as the agent's setting, NULL for none. Ends the program where it cannot go on, as
 * all of these do. */
CURL* openTemplate(const char* endpoint, const char* path, const char* certificate);

void perform(CURL* request);

/* Posts a text and returns the reply, which lives until the same thread posts again. */
const char* post(CURL* template, const char* text);

/* Writes a message of the collector's output around Base64 text that it makes from the bytes; the
 * caller frees it. */
char* outputMessage(const char* bytes, size_t size);
