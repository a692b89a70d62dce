// The call trampoline: calls a function whose arguments are known only at run time, by the x86-64
// System V convention. The one assembly unit; other processors need their own with this contract.

#ifndef DLC_X64_SYSTEM_V_H
#define DLC_X64_SYSTEM_V_H

#include "common/zd_base.h"

ZD_BEGIN_DECLS

// Loads the six integer and eight vector registers, copies stack_size bytes of stack_block to the
// stack so that the first slot lies just above fn's return address, and calls fn. Requires
// stack_size to be a multiple of 8 (the stack is then 16-byte aligned at the call); stack_block
// is not read when it is 0. Returns what fn left in rax; what it left in xmm0 is left there too,
// so calling through another view reads that instead. A throw out of fn abandons the frame:
// nothing in it needs undoing.
ZD_API int64_t dl_call_linux_x64(size_t stack_size, const char *stack_block,
                                 const int64_t *int_regs, const double *float_regs, void *fn);

ZD_END_DECLS

// The three views, by where the result is taken from: rax, xmm0, the low half of xmm0.
typedef int64_t (*ext_func_t)(size_t, const char *, const int64_t *, const double *, void *);
typedef double (*ext_func_dbl_t)(size_t, const char *, const int64_t *, const double *, void *);
typedef float (*ext_func_flo_t)(size_t, const char *, const int64_t *, const double *, void *);

#ifdef __cplusplus

// The empty statement hides from the compiler which function is called: knowing its declaration,
// Clang would take every result of eight bytes from rax.
template <class View>
inline View dlc_view(void) {
    void *trampoline = reinterpret_cast<void *>(dl_call_linux_x64);
    __asm__("" : "+r"(trampoline));
    return reinterpret_cast<View>(trampoline);
}

#endif

#endif
