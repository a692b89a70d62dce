// The services that a user routine calls back; what a routine's author sees of them is in
// zdextproc.h. Raising leaves the routine and the trampoline at once and lands in the request's
// try frame.

#ifndef EPA_USR_UTIL_H
#define EPA_USR_UTIL_H

#include "client/zdepa/epa_type.h"
#include "zdextproc.h"

#endif
