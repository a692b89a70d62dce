// Call stacks as text, for failure reports: one line a frame, with the name of the function from
// the ELF symbol tables of whatever file is mapped at its address. Neither debug information nor
// exported names are needed, but functions that keep a frame pointer are: the walk follows the
// chain of saved ones, and ends where that leads to memory that cannot be read. A caller without
// one (much of libc) can add a line that means nothing.
// Nothing fails: a frame whose function cannot be told is printed as "??????". Slow; for the ways
// on which a process ends. The walk reads the stack of the calling thread alone.

#ifndef CLIENT_CALLSTACK_H
#define CLIENT_CALLSTACK_H

#include <stdio.h>

#include "common/zd_base.h"

typedef unsigned long callstack_ip_t; // a return address

ZD_BEGIN_DECLS

// Written at start-up by the two functions below, and only read afterwards.
ZD_API extern char *program_name;
ZD_API extern void *call_stack_top; // the frame at which captures stop
ZD_API extern unsigned char callstack_disabled;

// Keeps prog_name, which must live as long as the process, and the frame of the caller: the
// outermost function whose own callers need not appear in captures.
ZD_API void callstack_init(char *prog_name);

// 0 switches callstack_dump off, anything else on again.
ZD_API void callstack_enable(unsigned char enable);

// Writes the local time and then the current stack, from the caller outwards, to fp. The walk ends
// after "main", "start_thread", "thr_main" or "svr_wthr_init". "show_call_stack" and
// "show_call_stack_in_fit" are hidden with their direct callers: reporting wrappers. The number of
// a line counts hidden frames too. fp is not flushed.
ZD_API void callstack_dump(FILE *fp);

// Captures up to context_len return addresses of the current stack, from the caller outwards, and
// sets what is left of ip to 0. Requires context_len entries.
ZD_API void callstack_get_context(callstack_ip_t *ip, int context_len);

// Writes captured addresses, up to the first 0, as callstack_dump would, also when dumps are
// disabled.
ZD_API void callstack_dump_context(FILE *fp, const callstack_ip_t *ip, int context_len);

// Finds the function that ip lies in: its name goes to buf, cut to len - 1 characters, and how far
// behind its start ip is to *offset. Returns 0; -2 when the name had to be cut; -1, with nothing
// written, when none is found. That is so for an address in no file, for a file that is not there
// any more or is no 64-bit ELF file, and for one whose code segment does not begin on a page.
ZD_API int callstack_get_location(unsigned long ip, char *buf, size_t len, ptrdiff_t *offset);

ZD_END_DECLS

#endif
