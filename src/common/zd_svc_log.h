// Event printers: console messages whose texts stand in the error catalogue. A text of more than
// 711 bytes is cut. A code that the catalogue does not know ends the process.

#ifndef ZD_SVC_LOG_H
#define ZD_SVC_LOG_H

#include "common/zd_base.h"

ZD_BEGIN_DECLS

// Each formats the catalogue's description of code with the arguments that its row names.
// Writes the text to standard output.
ZD_API void print_event(int code, ...);
// Writes the text to standard error, followed by the text of errno as it was at the call.
ZD_API void perror_event(int code, ...);
// Writes the text to standard output and ends the process with status 1.
ZD_API ZD_NORETURN void print_error_and_exit(int code, ...);

ZD_END_DECLS

#endif
