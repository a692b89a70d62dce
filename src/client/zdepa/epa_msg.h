// Moves the agent's messages between the socket and the codec's records: the readiness signal, one
// request in, one reply out. Uses this thread's context: its socket, buffers and error stack.

#ifndef EPA_MSG_H
#define EPA_MSG_H

#include "client/zdepa/epa_type.h"
#include "common/zdmsg/zdmsg_meta_gen.h"

ZD_BEGIN_DECLS

// Writes the readiness signal: 13 raw bytes, "BOOT SUCCESS" with its terminator. Returns 0, or the
// error code that the write raised.
ZD_API int epa_send_zd_boot_success(void);

// Reads one request into the context's msg and returns its type. The record's strings point into
// the receive buffer, its arrays belong to the context's allocator. A type outside the catalogue
// has no fields to decode; its body is read all the same. Raises, without pushing,
// ERROR_EPA_CONN_CLOSED at the end of the stream, ERROR_IO when reading fails or the stream ends
// inside the body, ERROR_EPA_FAIL for a body above EPA_MSG_BUF_SIZE (which stays unread).
ZD_API int epa_msg_recv(void);

// Fills msg, an extproc_execute_reply record, from a finished call. The entries' array comes from
// alloc; the values are not copied. Raises (pushed) for a result that cannot be sent and for an
// OUT value longer than its maximum.
ZD_API void epa_msg_reply_param_set(epa_dlfunc_t *dlf, void *ret, zdmsg_t *msg, allocator_t *alloc);

// Builds and writes the reply of a finished call, then releases the call. Raises ERROR_EPA_FAIL,
// not pushed, for a reply above EPA_MSG_BUF_SIZE; the call is then not released.
ZD_API void epa_msg_send(epa_dlfunc_t *dlf, void *ret);

// Release a call with everything that was allocated for it; the second keeps the descriptor and
// its memory for the next call of the direct form.
ZD_API void epa_resource_free(epa_dlfunc_t *dlf);
ZD_API void epa_resource_cleanup(epa_dlfunc_t *dlf);

// Builds and writes the error reply: the whole error stack and nothing else.
ZD_API void epa_msg_set_ereply(zd_err_stack_t *errstack);

// The same into the caller's record; nothing is written. The serialized stack in it belongs to the
// context's allocator: zdmsg_free with that allocator releases it.
ZD_API void epl_msg_set_ereply(zdmsg_extproc_execute_reply_t *ereply, zd_err_stack_t *errstack);

ZD_END_DECLS

#endif
