// Start-up of the agent. An agent process calls epa_init, epa_worker_init, epa_process_request, in
// this order; a host of the direct form calls epa_init_dir on every thread that serves requests.

#ifndef EPA_INIT_H
#define EPA_INIT_H

#include "client/zdepa/epa_type.h"

ZD_BEGIN_DECLS

// Makes this thread's context, finds (and creates) the agent home and reads the configuration.
// Ends the process with status 1 when no home is set.
ZD_API void epa_init(void);

// Fills the context, binds it to the connected socket fd and installs the crash handler. mode 1
// first sends the readiness signal, and ends the process with status 1 when that fails.
ZD_API void epa_worker_init(const int fd, const int mode);

// The direct form: epa_init and epa_worker_init_dir, unless this thread has a context already.
ZD_API void epa_init_dir(void);

// Fills the context; no socket, no readiness signal, no crash handler.
ZD_API void epa_worker_init_dir(void);

// Prints product, version and build to standard output. Needs no context.
ZD_API void epa_print_version(void);

// The handler for SIGSEGV: logs the crash and ends the process with status 1.
ZD_API void epa_sigseg_handler(int signo);

ZD_END_DECLS

#endif
