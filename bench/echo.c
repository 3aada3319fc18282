/* echo: the physical floor of a query, a datagram server that does nothing but answer: each
 * request's first word says how many bytes the answer has.
 *
 * usage: echo PATH */
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: echo PATH\n");
        return 2;
    }
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    struct sockaddr_un self = {.sun_family = AF_UNIX};
    snprintf(self.sun_path, sizeof self.sun_path, "%s", argv[1]);
    unlink(self.sun_path);
    if (fd < 0 || bind(fd, (struct sockaddr *)&self, sizeof self) != 0) {
        perror("echo");
        return 1;
    }
    static char request[1024], answer[65536];
    for (;;) {
        struct sockaddr_un from;
        socklen_t from_length = sizeof from;
        ssize_t n =
            recvfrom(fd, request, sizeof request, 0, (struct sockaddr *)&from, &from_length);
        int32_t size = 0;
        if (n < (ssize_t)sizeof size)
            continue;
        memcpy(&size, request, sizeof size);
        if (size >= 0 && size <= (int32_t)sizeof answer)
            sendto(fd, answer, (size_t)size, 0, (struct sockaddr *)&from, from_length);
    }
}
