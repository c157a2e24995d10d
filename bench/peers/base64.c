#include "base64.h"

static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

char* encodeBase64(const char* bytes, size_t size, char* text) {
    const unsigned char* in = (const unsigned char*)bytes;
    for (; size >= 3; size -= 3, in += 3, text += 4) {
        const unsigned bits = (unsigned)in[0] << 16 | (unsigned)in[1] << 8 | in[2];
        text[0] = alphabet[bits >> 18];
        text[1] = alphabet[bits >> 12 & 63];
        text[2] = alphabet[bits >> 6 & 63];
        text[3] = alphabet[bits & 63];
    }
    if (size > 0) {
        const unsigned bits = (unsigned)in[0] << 16 | (size > 1 ? (unsigned)in[1] << 8 : 0);
        text[0] = alphabet[bits >> 18];
        text[1] = alphabet[bits >> 12 & 63];
        text[2] = size > 1 ? alphabet[bits >> 6 & 63] : '=';
        text[3] = '=';
        text += 4;
    }
    return text;
}
