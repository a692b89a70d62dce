// Routines that do what no routine should, each in a way of its own.

#include <arpa/inet.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "client/zdepa/epa_type.h"
#include "zdextproc.h"

// Seen by the processor, not by a sanitizer.
__attribute__((no_sanitize("address", "undefined"))) void hostile_crash(void) {
    volatile int *volatile nowhere = NULL;
    *nowhere = 1;
}

void hostile_abort(void) {
    abort();
}

void hostile_exit(int status) {
    exit(status);
}

void hostile_signal(int number) {
    raise(number);
}

// Memory of the call, written beyond, then handed to the allocator that fenced it.
void hostile_red_zone(ExtProcContext *context) {
    allocator_t *const alloc = context->alloc;
    char *const block = SQLExtProcDirectAllocMemory(context, 10);
    memset(block, 'x', 11);
    alloc->desc->func_free(alloc, block, "hostile_routines", __LINE__);
}

// A block of the C library, written beyond.
void hostile_heap(void) {
    char *volatile block = malloc(24);
    char *const beyond = block + 24;
    memset(beyond, 0xff, 8);
    free(malloc(24));
    free(block - 16);
}

// An OUT text of capacity bytes, overwritten by one.
void hostile_overrun(char *out, int capacity) {
    memset(out, 'y', (size_t)capacity + 1);
    out[capacity - 1] = '\0';
}

void hostile_close(ExtProcContext *context) {
    close(context->fd);
}

void hostile_close_and_stay(ExtProcContext *context) {
    close(context->fd);
    for (;;)
        pause();
}

void hostile_loop(void) {
    for (;;)
        pause();
}

// Bytes on the socket that are no reply.
void hostile_reply(ExtProcContext *context, uint32_t type, uint32_t body_size) {
    const uint32_t message[20] = {htonl(type), htonl(body_size)}; // 64 zeros after the header
    send(context->fd, message, sizeof message, 0);
    for (;;)
        pause();
}

// What a routine prints must not get between values.
int hostile_print(void) {
    printf("printed to standard output\n");
    fflush(stdout);
    fprintf(stderr, "printed to standard error\n");
    return 1;
}
