#include "client/common/client_assert.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include "common/zdmsg/zdmsg_record.h"

void zd_assert_msg(const char *msg, const char *filename, int lineno) {
    fprintf(stderr, "%s:%d: Assertion fail with condition '%s' (PID=%d, pthread id=%u)\n", filename,
            lineno, msg, getpid(), static_cast<unsigned int>(pthread_self()));
    fflush(stderr);
}

void zd_assert_msg_detail(const char *cond, int argc, const char *filename, int line,
                          const char *func, ...) {
    const int saved_errno = errno;
    fprintf(stderr, "%s:%d:%s: Assert failed: %s (%d args)", filename, line, func, cond, argc);
    va_list values;
    va_start(values, func);
    for (int i = 0; i < argc; i++) {
        const char *const text = va_arg(values, const char *);
        const int size = va_arg(values, int);
        if (size != 1 && size != 2 && size != 4 && size != 8)
            break;
        fprintf(stderr, "\n\t%s = ", text);
        if (size == 8) {
            const long value = va_arg(values, long);
            fprintf(stderr, "%ld = %lu = 0x%lx", value, static_cast<unsigned long>(value),
                    static_cast<unsigned long>(value));
            continue;
        }
        const int value = va_arg(values, int);
        const unsigned int bits = static_cast<unsigned int>(value);
        if (size == 1) {
            fprintf(stderr, "'%c' = 0x%x", value, bits & 0xff);
        } else if (size == 2) {
            fprintf(stderr, "%hd = %hu = 0x%hx", static_cast<short>(value),
                    static_cast<unsigned short>(bits), static_cast<unsigned short>(bits));
        } else {
            fprintf(stderr, "%d = %u = 0x%x", value, bits, bits);
            if (strcmp(text, "errno") == 0)
                fprintf(stderr, " %s", strerror(saved_errno));
        }
    }
    va_end(values);
    fputc('\n', stderr);
    fflush(stderr);
}

void zd_thr_assert_cmd(void) {
    abort();
}

void zd_svr_assert_cmd(void) {
    abort();
}

// The header need not lie before the body, and what lies there instead need not be readable: the
// kernel copies it, and says so where a load would crash. Where a sandbox forbids the plain way, a
// pipe serves.
static bool copy_if_readable(unsigned char *to, const char *from, size_t length) {
    const ssize_t whole = static_cast<ssize_t>(length);
    const iovec local = {to, length};
    const iovec remote = {const_cast<char *>(from), length};
    if (process_vm_readv(getpid(), &local, 1, &remote, 1, 0) == whole)
        return true;
    int ends[2];
    if (errno == EFAULT || pipe2(ends, O_CLOEXEC) != 0)
        return false;
    const bool copied = write(ends[1], from, length) == whole && read(ends[0], to, length) == whole;
    close(ends[0]);
    close(ends[1]);
    return copied;
}

void zd_asserted_zdmsg_dump(const zdmsg_t *msg) {
    timeval now;
    tm local;
    gettimeofday(&now, nullptr);
    localtime_r(&now.tv_sec, &local);
    fprintf(stderr, "[ZDMSG Dump]\n");
    fprintf(stderr, "created at %4u/%02u/%02u %02u:%02u:%02u.%06u\n",
            static_cast<unsigned int>(local.tm_year + 1900),
            static_cast<unsigned int>(local.tm_mon + 1), static_cast<unsigned int>(local.tm_mday),
            static_cast<unsigned int>(local.tm_hour), static_cast<unsigned int>(local.tm_min),
            static_cast<unsigned int>(local.tm_sec), static_cast<unsigned int>(now.tv_usec));
    fprintf(stderr, "type: %d\n", msg->type);
    fprintf(stderr, "bodysize: %u\n", msg->body_size);
    fprintf(stderr, "tsn: %lu\n", msg->tsn);
    fprintf(stderr, "str_auto_free: %d\n", msg->str_auto_free);

    fprintf(stderr, "[raw msg header]\n");
    unsigned char header[ZDMSG_HDR_SIZE];
    const bool readable = copy_if_readable(header, msg->raw - ZDMSG_HDR_SIZE, sizeof header);
    for (unsigned int i = 0; i < ZDMSG_HDR_SIZE; i++) {
        if (readable)
            fprintf(stderr, "%02X", header[i]);
        else
            fprintf(stderr, "??");
        if (i % 4 == 3)
            fputc(' ', stderr);
    }
    fputc('\n', stderr);

    fprintf(stderr, "[raw msg body]\n");
    for (uint32_t i = 0; i < msg->body_size; i++) {
        fprintf(stderr, "%02X", static_cast<unsigned char>(msg->raw[i]));
        if (i % 4 == 3)
            fputc((i + 1) % 36 == 0 ? '\n' : ' ', stderr);
    }
    fputc('\n', stderr);
    fflush(stderr);
}
