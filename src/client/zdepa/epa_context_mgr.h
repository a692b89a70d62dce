// The agent's one context per thread: made, filled and released here. The thread that makes it
// owns it.

#ifndef EPA_CONTEXT_MGR_H
#define EPA_CONTEXT_MGR_H

#include "client/zdepa/epa_type.h"

ZD_BEGIN_DECLS

// A region allocator under the system allocator. Deleted with the context.
ZD_API allocator_t *epa_allocator_new(void);

// Does nothing: the root allocator goes with the context.
ZD_API void epa_allocator_delete(void);

// A context in memory of alloc, with alloc stored in it and nothing else set; epa_context_mgr_init
// fills the rest.
ZD_API epa_context_mgr_t *epa_context_mgr_new(allocator_t *alloc);

// Fills this thread's context and opens its log. Requires the configuration. A log that cannot be
// opened ends the process.
ZD_API void epa_context_mgr_init(void);

// Closes the cached libraries and releases everything of this thread's context. Without a context,
// nothing.
ZD_API void epa_context_mgr_delete(void);

ZD_END_DECLS

#endif
