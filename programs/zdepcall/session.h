// Calls through one agent, and what is printed about them.

#ifndef ZDEPCALL_SESSION_H
#define ZDEPCALL_SESSION_H

#include "options.h"

namespace zdepcall {

enum ExitStatus { STATUS_OK = 0, STATUS_ERROR = 1, STATUS_USAGE = 2, STATUS_DIED = 3 };

// Each starts an agent, makes its calls, ends the agent, and returns an exit status. Throws
// UsageError for what the user wrote wrong, Interrupted for a signal.
int run_one_call(const Options &options);
int run_script(const Options &options);

} // namespace zdepcall

#endif
