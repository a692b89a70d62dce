// A message shown byte by byte, with the field that the bytes are.

#ifndef ZDEPCALL_TRACE_H
#define ZDEPCALL_TRACE_H

#include <cstdio>

#include "hex.h"

namespace zdepcall {

using namespace programs;

// Prints a request or a reply, its header included. title heads it. What cannot be read as the
// message says so and is shown without field names.
void trace_message(FILE *stream, const char *title, ByteView message);

} // namespace zdepcall

#endif
