// Hex dumps of memory, to a dump stream, a FILE, a string or standard error. They read the bytes
// and own nothing. A line of the first three shows 16 bytes:
//
//   0010: 48 65 6C 6C 6F 2C 20 77 6F 72 6C 64 0A          Hello, world.   <- padded with blanks
//
// The number is the offset in hexadecimal; characters other than 32 to 126 show as ".".

#ifndef ZD_DUMPDATA_H
#define ZD_DUMPDATA_H

#include <stdio.h>

#include "common/zd_base.h"
#include "common/zd_dump.h"

ZD_BEGIN_DECLS

// Dumps all bytes, without separators between the lines. The next print on the stream counts as
// the first record.
ZD_API void dbinary_dump(dstream_t *dstream, const void *start, uint64_t size);

// Up to 1024 bytes are dumped whole. Of more, the first 512 bytes, an empty line, and the last 496
// to 511 from a multiple of 16 on. Each line is one item of the stream. A len below 1 prints
// nothing.
ZD_API void dump_data(dstream_t *dstream, const char *buf, int len);
ZD_API void fdump_data(FILE *fp, const char *buf, int len);

// Writes " XX" for each byte, as many as fit whole into str_len characters; returns the number of
// characters. A terminator follows only where there is room for it: with str_len a multiple of 3,
// str may be filled to its end.
ZD_API int sdump_data(char *str, int str_len, const char *buf, int buf_len);

// Dumps with true addresses instead of offsets.
ZD_API void dump_data_to_stderr(const void *addr, int len);

ZD_END_DECLS

#endif
