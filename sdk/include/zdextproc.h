// What a native routine may call back while the database agent runs it, and the packed flags that
// describe its parameters on the wire. C11 and C++; needs nothing but the C library.
//
// A routine registered "with context" receives an ExtProcContext * as its first argument, ahead of
// its declared parameters. The context is valid until the routine returns.

#ifndef ZDEXTPROC_H
#define ZDEXTPROC_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct epa_util_context_s ExtProcContext;

#define EXTPROC_API __attribute__((visibility("default")))

// Memory that lives as long as the call, not initialised, aligned to 8: a routine may return it by
// reference and never frees it. When there is none to give, the call ends with an error and
// control does not come back.
EXTPROC_API void *SQLExtProcDirectAllocMemory(ExtProcContext *epaCtx, size_t size);

// End the call with a database error. 20000 to 20999 are the routine's own codes; any other
// positive code must be one that the database knows, else the caller sees "Invalid error code".
// Control does not come back and no destructor between the routine and the agent runs: release
// what the routine holds first. A code of 0 or below is ignored, and only then the call returns.
// errmsg (zero-terminated) is the text of an own code; it is not used for any other.
EXTPROC_API void SQLExtProcDirectRaiseError(ExtProcContext *epaCtx, int errcode);
EXTPROC_API void SQLExtProcDirectRaiseErrorWithMsg(ExtProcContext *epaCtx, int errcode,
                                                   char *errmsg);

// A parameter's flag (and the request's return flag):
//
//   31        24 23        16 15         8 7          0
//   +-----------+------------+------------+-----------+
//   |call method| param mode |  database  |  native   |
//   |1: by ref. | bit 2: OUT |    type    |   type    |
//   +-----------+------------+------------+-----------+
static inline int ep_get_call_method_in_param(int flag) {
    return (int)((uint32_t)flag >> 24);
}

static inline int ep_get_psm_param_mode_in_param(int flag) {
    return (int)(((uint32_t)flag & 0xff0000u) >> 16);
}

static inline int ep_get_zd_type_in_param(int flag) {
    return (int)(((uint32_t)flag & 0xff00u) >> 8);
}

static inline int ep_get_zd_type_ext_in_param(int flag) {
    return (int)((uint32_t)flag & 0xffu);
}

// From the request's property: not 0 when the routine takes a context.
static inline int ep_get_with_context(int property) {
    return (int)(((uint32_t)property & 0xff00u) >> 8);
}

#ifdef __cplusplus
}
#endif

#endif
