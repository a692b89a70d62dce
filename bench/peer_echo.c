// The least that a program can do that answers requests: reads 16 bytes, then as many as they
// announce, and writes a reply of a fixed size. Arguments: the socket, the reply's size.

#include <arpa/inet.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

int main(int argc, char **argv) {
    static char body[65536];
    static char reply[65536];
    if (argc != 3)
        return 2;
    const int fd = atoi(argv[1]);
    const size_t reply_size = (size_t)atoi(argv[2]);
    if (reply_size > sizeof reply)
        return 2;
    for (;;) {
        char header[16];
        const ssize_t count = recv(fd, header, sizeof header, 0);
        if (count != (ssize_t)sizeof header)
            return count == 0 ? 0 : 1;
        uint32_t body_size;
        memcpy(&body_size, header + 4, sizeof body_size);
        body_size = ntohl(body_size);
        if (body_size > sizeof body || recv(fd, body, body_size, 0) != (ssize_t)body_size)
            return 1;
        if (send(fd, reply, reply_size, 0) != (ssize_t)reply_size)
            return 1;
    }
}
