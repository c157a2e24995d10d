/* The server's own limit: requests over bare sockets, without any library.
 *
 * usage: peer-raw PORT posts COUNT     small posts, each on a connection of its own
 *        peer-raw PORT body BYTES      one post
 *        peer-raw PORT package NAME    one download, thrown away */
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

enum { kPiece = 1048576 };

static char piece[kPiece];

static void fail(const char* what) {
    perror(what);
    exit(1);
}

static int connectTo(const char* port) {
    const struct sockaddr_in address = {.sin_family = AF_INET,
                                        .sin_port = htons((unsigned short)atoi(port)),
                                        .sin_addr = {htonl(INADDR_LOOPBACK)}};
    const int connection = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(connection, (const struct sockaddr*)&address, sizeof(address)) != 0) {
        fail("connect");
    }
    return connection;
}

static void put(int connection, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t sent = send(connection, data, size, 0);
        if (sent <= 0) {
            fail("send");
        }
        data += sent;
        size -= (size_t)sent;
    }
}

/* Reads an answer of one piece. */
static void takeAnswer(int connection) {
    if (recv(connection, piece, kPiece, 0) <= 0) {
        fail("recv");
    }
}

static void startPost(int connection, unsigned long long size) {
    char head[256];
    const int length = snprintf(head, sizeof(head),
                                "POST /api/collection-agent/message HTTP/1.1\r\nHost: "
                                "bench\r\nContent-Length: %llu\r\n\r\n",
                                size);
    put(connection, head, (size_t)length);
}

static void posts(const char* port, long count) {
    static const char text[] = "{\"messageType\":\"none\",\"messageParameters\":{}}";
    for (; count > 0; --count) {
        const int connection = connectTo(port);
        startPost(connection, sizeof(text) - 1);
        put(connection, text, sizeof(text) - 1);
        takeAnswer(connection);
        close(connection);
    }
}

static void body(const char* port, unsigned long long bytes) {
    const int connection = connectTo(port);
    startPost(connection, bytes);
    for (; bytes > kPiece; bytes -= kPiece) {
        put(connection, piece, kPiece);
    }
    put(connection, piece, bytes);
    takeAnswer(connection);
    close(connection);
}

static void package(const char* port, const char* name) {
    char head[512];
    const int length =
        snprintf(head, sizeof(head),
                 "GET /api/collection-agent/target-package?targetPackageArchiveName=%s "
                 "HTTP/1.1\r\nHost: bench\r\n\r\n",
                 name);
    const int connection = connectTo(port);
    put(connection, head, (size_t)length);
    shutdown(connection, SHUT_WR);
    while (recv(connection, piece, kPiece, 0) > 0) {
    }
    close(connection);
}

int main(int argc, char* argv[]) {
    if (argc != 4) {
        return 2;
    }
    if (strcmp(argv[2], "posts") == 0) {
        posts(argv[1], atol(argv[3]));
    } else if (strcmp(argv[2], "body") == 0) {
        body(argv[1], strtoull(argv[3], NULL, 10));
    } else {
        package(argv[1], argv[3]);
    }
    return 0;
}
