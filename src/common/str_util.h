// Small routines on zero-terminated byte strings, most of them in place: trimming, case of the
// 7-bit range, matching, searching, replacing, and fitting a number's text into a width. Character
// classes are the locale's. Nothing here allocates; no string but those that say so may be NULL.
// The enumerations of character sets and of case conversions stand here for all who name them.

#ifndef STR_UTIL_H
#define STR_UTIL_H

#include "common/zd_base.h"

typedef enum zdstr_charset_e ZD_ENUM_OF(int){
    ZDSTR_CHARSET_ASCII = 0,       ZDSTR_CHARSET_EUCKR = 1,
    ZDSTR_CHARSET_MSWIN949 = 2,    ZDSTR_CHARSET_UTF8 = 3,
    ZDSTR_CHARSET_UTF16 = 4,       ZDSTR_CHARSET_SJIS = 5,
    ZDSTR_CHARSET_MSWIN932 = 6,    ZDSTR_CHARSET_MSWIN932_TILDE = 7,
    ZDSTR_CHARSET_EUCJP = 8,       ZDSTR_CHARSET_EUCJP_TILDE = 9,
    ZDSTR_CHARSET_TCVN3 = 10,      ZDSTR_CHARSET_MSWIN936 = 11,
    ZDSTR_CHARSET_MSWIN1252 = 12,  ZDSTR_CHARSET_MSWIN950 = 13,
    ZDSTR_CHARSET_MSWIN1251 = 14,  ZDSTR_CHARSET_ISO8859P1 = 15,
    ZDSTR_CHARSET_ISO8859P2 = 16,  ZDSTR_CHARSET_ISO8859P9 = 17,
    ZDSTR_CHARSET_ISO8859P15 = 18, ZDSTR_CHARSET_KOI8R = 19,
    ZDSTR_CHARSET_ISO8859P5 = 20,
    ZDSTR_CHARSET_DB_MAX = 21, // what a database may use lies below
    ZDSTR_CHARSET_ISO2022KR = 21,  ZDSTR_CHARSET_US8ICL = 22,
    ZDSTR_CHARSET_MAX = 23} zdstr_charset_t;

typedef enum zdstr_case_e {
    ZDSTR_CASE_NONE = 0,
    ZDSTR_CASE_LOWER = 1,
    ZDSTR_CASE_UPPER = 2,
    ZDSTR_CASE_INITCAP = 3,
    ZDSTR_CASE_TRIM_UPPER = 4,
    ZDSTR_CASE_MAX = 5
} zdstr_case_t;

ZD_BEGIN_DECLS

// Overwrites trailing white space with zero bytes and returns the first character that is no white
// space: it points into str. NULL stays NULL.
ZD_API char *_trim_str(char *str);

// Removes the blanks (no other white space) at both ends of the first len bytes by moving the rest
// to the front. Returns how many it removed; a terminator is neither looked for nor written.
ZD_API int _str_unpad_space(char *str, int len);

// Convert len bytes. Bytes of 128 and above stay as they are, so no multi-byte text is broken. The
// first two work in place; dst needs room for len bytes and may be src.
ZD_API void _toupper_str(char *str, int len);
ZD_API void _tolower_str(char *str, int len);
ZD_API void _toupper_str2(char *dst, const char *src, int len);

// Upper-cases the first byte and every one that follows a "-" or a blank; lowers none. The first
// byte is converted whatever len is: requires that there is one.
ZD_API void _initcap_str(char *str, int len);

// 1 when pattern matches the whole of str, else 0. "%" is any run of characters, "_" any one, "\"
// takes the next character literally, and case counts. A "\" that ends the pattern matches nothing.
// Time is at most the product of both lengths.
ZD_API int _str_match(const char *str, const char *pattern);

// The earliest place in str of any byte of chars, or NULL.
ZD_API char *_strchrs(const char *str, const char *chars);

// The first place of needle in haystack, whatever the case, or NULL. An empty needle is found at
// once. Neither may be NULL (an assertion).
ZD_API char *_strcasestr(const char *haystack, const char *needle);

// Copies src to dst with every occurrence of from replaced by to; what was inserted is not looked
// at again. An empty from occurs nowhere. Requires room for the result in dst, which must not
// overlap the others: strlen(src) + 1 bytes, or the result's where to is the longer one.
ZD_API void _replace_str(const char *src, char *dst, const char *from, const char *to);

// The two below rewrite a number's text in place and return 0. Numbers are read and printed with
// the locale's decimal point, but "." alone is looked for: they are for the "C" numeric locale.

// Rewrites a decimal text to fit size characters: trailing zeros of the fraction go, then it is
// rounded; where the integer part alone takes size characters, the form is 1.23E+45. Rounding up
// can take one character more (9.99 in 3 is 10.0). Never writes beyond the end of the text that is
// there: when no form fits that (sizes below 7 have no room for an exponent), the text stays.
ZD_API int _print_double(char *str, size_t size);

// Rewrites a number in exponent notation to fit size characters (at most 14: an assertion). An
// exponent from -9 to 9 is resolved by moving the point, and the result goes through
// _print_double; a larger one stays as "e20" behind a mantissa that is filled up with zeros, or cut
// without rounding, to size - 3 characters. The mantissa should have its point, as zeros are
// filled in without one too, and counts up to its 16th character. Requires room for the text that
// is there and for size + 2 characters, each with a terminator: "e-100" is two characters longer
// than "e20". A result that needs more is not written: the text stays.
ZD_API int _print_number(char *str, size_t size);

ZD_END_DECLS

#endif
