/* query: round trips of one query kind to hotplugd and, interleaved block by block, to a raw
 * datagram echo that answers with as many bytes; prints p50 and p99 of each in microseconds.
 *
 * usage: query SERVER ECHO KIND NAME CLIENTS ROUNDS
 *   NAME is the query's name field ("sdb"; for kind 104 the partition byte comes first, given
 *   as "1sdb"). CLIENTS threads each make ROUNDS round trips to each side, in blocks of 50. */
#define _GNU_SOURCE
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

enum { block = 50, max_request = 16 };

static const char *server, *echo;
static char request[max_request];
static size_t request_size;
static int rounds;
static int32_t reply_size;
static double *times[2]; /* daemon, echo: every client's round trips */

static double now_us(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1e6 + t.tv_nsec / 1e3;
}

static int bound_socket(int n) {
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    struct sockaddr_un self = {.sun_family = AF_UNIX};
    snprintf(self.sun_path, sizeof self.sun_path, "/tmp/ktipc/bench-%d-%d.sock", getpid(), n);
    unlink(self.sun_path);
    if (fd < 0 || bind(fd, (struct sockaddr *)&self, sizeof self) != 0) {
        perror("bind");
        exit(1);
    }
    return fd;
}

static ssize_t ask(int fd, const char *path, const void *data, size_t size, char *reply) {
    struct sockaddr_un to = {.sun_family = AF_UNIX};
    snprintf(to.sun_path, sizeof to.sun_path, "%s", path);
    if (sendto(fd, data, size, 0, (struct sockaddr *)&to, sizeof to) < 0)
        return -1;
    return recv(fd, reply, 65536, 0);
}

static void *client(void *arg) {
    const int n = (int)(intptr_t)arg;
    const int fd = bound_socket(n);
    char *reply = malloc(65536);
    /* The echo is told the reply's size in the request's first word. */
    char echo_request[max_request];
    memcpy(echo_request, request, request_size);
    memcpy(echo_request, &reply_size, sizeof reply_size);
    for (int done = 0; done < rounds; done += block)
        for (int side = 0; side < 2; ++side)
            for (int i = done; i < done + block && i < rounds; ++i) {
                const double start = now_us();
                if (ask(fd, side == 0 ? server : echo, side == 0 ? request : echo_request,
                        request_size, reply) != reply_size) {
                    fprintf(stderr, "query: a reply of another size\n");
                    exit(1);
                }
                times[side][n * rounds + i] = now_us() - start;
            }
    free(reply);
    close(fd);
    return NULL;
}

static int by_value(const void *a, const void *b) {
    const double x = *(const double *)a, y = *(const double *)b;
    return (x > y) - (x < y);
}

int main(int argc, char **argv) {
    if (argc != 7) {
        fprintf(stderr, "usage: query SERVER ECHO KIND NAME CLIENTS ROUNDS\n");
        return 2;
    }
    server = argv[1];
    echo = argv[2];
    const int32_t kind = atoi(argv[3]);
    const char *name = argv[4];
    const int clients = atoi(argv[5]);
    rounds = atoi(argv[6]);
    memcpy(request, &kind, sizeof kind);
    request_size = sizeof kind;
    if (kind == 104) /* the partition number, then the disk */
        request[request_size++] = (char)(*name++ - '0');
    const size_t length = strlen(name) < 8 ? strlen(name) : 8;
    memcpy(request + request_size, name, length);
    request_size += length;
    /* One query first, for the size the echo must answer with. */
    int fd = bound_socket(99);
    char *reply = malloc(65536);
    reply_size = (int32_t)ask(fd, server, request, request_size, reply);
    close(fd);
    free(reply);
    if (reply_size < 0) {
        perror("query");
        return 1;
    }
    for (int side = 0; side < 2; ++side)
        times[side] = calloc((size_t)clients * rounds, sizeof(double));
    pthread_t threads[64];
    for (int n = 0; n < clients && n < 64; ++n)
        pthread_create(&threads[n], NULL, client, (void *)(intptr_t)n);
    for (int n = 0; n < clients && n < 64; ++n)
        pthread_join(threads[n], NULL);
    const size_t total = (size_t)clients * rounds;
    printf("%d", reply_size);
    for (int side = 0; side < 2; ++side) {
        qsort(times[side], total, sizeof(double), by_value);
        printf(" %.1f %.1f", times[side][total / 2], times[side][total * 99 / 100]);
    }
    printf("\n");
    return 0;
}
