#include "fuzz/assert_trap.h"

#include "client/common/client_assert.h"

namespace assert_trap {
jmp_buf *frame;
}

// The linker sends the library's calls here (--wrap).
extern "C" {

[[noreturn]] void __wrap_zd_thr_assert_cmd(void);
void __wrap_zd_assert_msg(const char *msg, const char *filename, int lineno);
void __wrap_zd_assert_msg_detail(const char *cond, int argc, const char *filename, int line,
                                 const char *func, ...);
void __wrap_zd_asserted_zdmsg_dump(const zdmsg_t *msg);

void __wrap_zd_thr_assert_cmd(void) {
    if (assert_trap::frame == nullptr)
        __builtin_trap();
    longjmp(*assert_trap::frame, 1);
}

void __wrap_zd_assert_msg(const char *, const char *, int) {}

void __wrap_zd_assert_msg_detail(const char *, int, const char *, int, const char *, ...) {}

void __wrap_zd_asserted_zdmsg_dump(const zdmsg_t *) {}
}
