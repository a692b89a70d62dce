// Facts about the machine, and whether a process of a name runs on it.

#ifndef ZD_UTIL_SYS_H
#define ZD_UTIL_SYS_H

#include "common/zd_base.h"

ZD_BEGIN_DECLS

// The processors that are online; where that is not known the configured ones; else -1.
ZD_API int get_ncpu(void);

// Bytes.
ZD_API long get_pagesize(void);
ZD_API int64_t get_physical_memory_size(void);

// 1 when the process pid is in the process list and its line there matches the regular expression
// name and does not say "defunct"; else 0, also when no shell can be run. The line begins with the
// number, so a name of digits can match that. name becomes part of a shell command as it is:
// requires that it is the program's own, never text from outside.
ZD_API int chk_process(int pid, const char *name);

ZD_END_DECLS

#endif
