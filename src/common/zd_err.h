// Raising errors: formats the message of a code from the catalogue and pushes it on an error stack.
// A failing function either returns the code that it raised or throws it to the thread's try frame
// (client_try.h). Nothing is raised for an unknown code: that is an assertion failure.

#ifndef ZD_ERR_H
#define ZD_ERR_H

#include <stdarg.h>

#include "client/common/client_try.h"
#include "common/zd_err_stack.h"

ZD_BEGIN_DECLS

// The arguments of the message, as argtypes of the code's row says, are in errargs. ERROR_NONE
// clears the stack instead, see zd_err_clear. A user program's code is raised under its own number
// with the texts of ERROR_PSM_USER_RAISE_APPLICATION. Messages are cut at 711 characters.
ZD_API void zd_err_internal(zd_err_stack_t *errstack, const zd_err_args_t *args, va_list errargs);

// The same without object, number and source span. They return ec.
ZD_API ec_t zd_err_internal_va(zd_err_stack_t *errstack, const char *file, int line,
                               const char *func, ec_t ec, ...);
ZD_API ec_t zd_err_internal_valist(zd_err_stack_t *errstack, const char *file, int line,
                                   const char *func, ec_t ec, va_list errargs);

// Empties a stack that holds no user error; with one on it, an assertion fails.
ZD_API void zd_err_clear(zd_err_stack_t *errstack);

ZD_END_DECLS

#ifdef __cplusplus

// Raises ec with the arguments of its message, then throws it.
template <class... A>
[[noreturn]] inline void zd_push_and_throw(zd_err_stack_t *stack, const char *file, int line,
                                           const char *func, ec_t ec, A... args) {
    zd_err_internal_va(stack, file, line, func, ec, args...);
    zd_err_and_jmp(file, line, func, 0, 0, ec);
}

#endif

#endif
