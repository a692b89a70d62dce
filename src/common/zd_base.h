// What every public header of the library builds on: C linkage, export marks, the few scalar
// types that have no home of their own. Headers compile alone as C11 and as C++20.

#ifndef ZD_BASE_H
#define ZD_BASE_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define ZD_BEGIN_DECLS extern "C" {
#define ZD_END_DECLS }
#else
#define ZD_BEGIN_DECLS
#define ZD_END_DECLS
#endif

// Part of the library's interface: visible outside, and listed in libzdepl.map.
#define ZD_API __attribute__((visibility("default")))

#define ZD_NORETURN __attribute__((noreturn))
#define ZD_PRINTF(format_index, first_argument)                                                    \
    __attribute__((format(printf, format_index, first_argument)))
#define ZD_UNLIKELY(condition) __builtin_expect(!!(condition), 0)

// Behind an enumeration's tag: in C++ its underlying type is stated, so that numbers without an
// enumerator (they come from a peer or a configuration) are values of it too.
#ifdef __cplusplus
#define ZD_ENUM_OF(type) : type
#else
#define ZD_ENUM_OF(type)
#endif

typedef unsigned char uchar;

// Result of the few operations that tell success from failure and nothing else: 0 or 1.
typedef int rc_t;

// An error code: 0 or negative. It is an enumerator of ec_e, or a number that has none (codes
// -20000 to -20999 belong to user programs, and a newer peer may know more than this library),
// hence the plain 32-bit integer.
typedef int32_t ec_t;

#endif
