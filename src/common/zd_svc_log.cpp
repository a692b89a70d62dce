#include "common/zd_svc_log.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include "client/common/client_assert.h"
#include "common/zd_err_info.h"

namespace {

struct event_text {
    char bytes[712];
};

void format_event(event_text *text, int code, va_list args) {
    const char *const desc = zd_get_err_info(code)->desc;
    ZD_ASSERT("zd_svc_log", desc != NULL);
    vsnprintf(text->bytes, sizeof text->bytes, desc, args);
}

} // namespace

void print_event(int code, ...) {
    event_text text;
    va_list args;
    va_start(args, code);
    format_event(&text, code, args);
    va_end(args);
    fputs(text.bytes, stdout);
}

void perror_event(int code, ...) {
    const int cause = errno;
    event_text text;
    va_list args;
    va_start(args, code);
    format_event(&text, code, args);
    va_end(args);
    errno = cause;
    perror(text.bytes);
}

void print_error_and_exit(int code, ...) {
    event_text text;
    va_list args;
    va_start(args, code);
    format_event(&text, code, args);
    va_end(args);
    fputs(text.bytes, stdout);
    exit(1);
}
