// Turns a program into a daemon: a process of its own session, without a terminal, without the
// descriptors that it was started with. The working directory and the file mode mask stay.

#ifndef CLIENT_DAEMON_H
#define CLIENT_DAEMON_H

#include "common/zd_base.h"

ZD_BEGIN_DECLS

// Goes on in a child, which leads a session of its own; the calling process exits with status 0, or
// with 1 when the child ends before that.
// In the child
// - every descriptor below the limit is closed but excluding_fd (negative: none is kept), and 0, 1
//   and 2 are "/dev/null". Requires that excluding_fd is none of those three (an assertion);
// - children are reaped as they end, SIGTSTP, SIGTTOU, SIGTTIN and SIGHUP are ignored, SIGTERM has
//   its default action, SIGUSR1 ends the process with status 0 and SIGALRM with status 1.
// A process whose parent is process 1 does not fork: it becomes the daemon itself, SIGUSR1 and
// SIGALRM are left alone, and it must not lead a process group.
// What cannot be done ends the process with status 1. A descriptor limit that cannot be read, or
// standard descriptors that do not come out as 0, 1 and 2, are assertions.
// Requires a process of one thread: others do not live on in the child.
ZD_API void client_daemonize(int excluding_fd);

ZD_END_DECLS

#endif
