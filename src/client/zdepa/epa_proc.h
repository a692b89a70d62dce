// The request loop and its direct form. Errors that a request raises end here: they are logged,
// answered with an error reply, and the next request is served.

#ifndef EPA_PROC_H
#define EPA_PROC_H

#include "client/zdepa/epa_type.h"

ZD_BEGIN_DECLS

// Serves requests from the context's socket, each answered before the next is read. Returns when a
// request's type is -1; ends the process with status 0, the log moved to the backup directory,
// when the connection ends. Requires epa_worker_init.
ZD_API void epa_process_request(void);

// Serves one decoded request (an extproc_execute record) and fills reply_msg, which the caller
// provides as an extproc_execute_reply record. Entries and values of the reply come from alloc
// and outlive the call, or point at msg's own values; of an error reply, the stack belongs to the
// context's allocator. Requires epa_init_dir on this thread.
ZD_API void epa_process_request_dir(zdmsg_t *msg, zdmsg_t *reply_msg, allocator_t *alloc);

ZD_END_DECLS

#endif
