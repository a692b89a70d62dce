// Registration of signal handlers: plain handlers that stay installed, and whose arrival makes an
// interrupted system call fail with EINTR.

#ifndef ZD_SIGNAL_H
#define ZD_SIGNAL_H

#include <signal.h>

#include "common/zd_base.h"

typedef void sig_func_t(int signo);

ZD_BEGIN_DECLS

// Unblocks signo in the calling thread and installs func for the process. Returns the previous
// handler, or SIG_ERR when either step fails.
ZD_API sig_func_t *zd_signal_register(int signo, sig_func_t *func);

ZD_END_DECLS

#endif
