// Non-local error exits. A try frame is a jmp_buf in the local variables of the function that
// opened it; a thread-specific slot points at the thread's innermost frame; a throw jumps there
// with an error code. A throw unwinds nothing: what was allocated since belongs to its allocator,
// and no object with a destructor and no held mutex may lie between the frame and the throw.

#ifndef CLIENT_TRY_H
#define CLIENT_TRY_H

#include <pthread.h>
#include <setjmp.h>

#include "common/zd_base.h"

ZD_BEGIN_DECLS

// Holds a jmp_buf *: the thread's innermost open frame, NULL outside any.
ZD_API extern pthread_key_t client_try_jmpbuf_key_;
ZD_API extern pthread_once_t client_try_jmpbuf_once_;

// Creates the key; run through client_try_jmpbuf_once_. A failure ends the process with status 1.
ZD_API void client_try_init(void);

// Throws ec (not 0) to the thread's innermost frame; without one, an assertion fails. Records
// nothing: the other arguments are accepted and not used.
ZD_API ZD_NORETURN void zd_err_and_jmp(const char *file, int line, const char *func, uchar notrace,
                                       uchar from_sighdlr, ec_t ec, ...);

ZD_END_DECLS

#ifdef __cplusplus

// Runs body() in a try frame. Returns 0 when it returned, else the code that was thrown; either
// way the enclosing frame is innermost again. What the body changes and the caller reads after a
// throw must live outside the body's own frame or be volatile.
template <class Body>
[[nodiscard]] __attribute__((noinline)) ec_t client_try(Body &&body) {
    pthread_once(&client_try_jmpbuf_once_, client_try_init);
    jmp_buf frame;
    void *const enclosing = pthread_getspecific(client_try_jmpbuf_key_);
    pthread_setspecific(client_try_jmpbuf_key_, &frame);
    const ec_t ec = setjmp(frame);
    if (ec == 0)
        body();
    pthread_setspecific(client_try_jmpbuf_key_, enclosing);
    return ec;
}

#endif

#endif
