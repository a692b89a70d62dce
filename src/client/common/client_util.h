// Readers of option lines ("KEY = value"). They work in place and in the caller's buffers.

#ifndef CLIENT_UTIL_H
#define CLIENT_UTIL_H

#include "common/zd_base.h"

ZD_BEGIN_DECLS

// Cuts trailing tabs, blanks and line ends off str, in place. Returns the first character that is
// no leading tab, blank or newline: it points into str.
ZD_API char *client_trim(char *str);

// Splits line at its first "=" into name and value, each trimmed and cut to its size minus one.
// Without a "=" neither is written. The line itself is trimmed in place. Requires sizes above 0.
ZD_API void client_parse_value(char *line, char *name, int name_size, char *value, int value_size);

// A decimal number, shifted left by 10, 20 or 30 when str ends in K, M or G of either case. The
// result wraps in 32 bits: "2G" is -2147483648, "4G" is 0. What is no number is 0.
ZD_API int client_atoi_kmg(const char *str);

ZD_END_DECLS

#endif
