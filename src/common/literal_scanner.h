// The scanners that find the literals of SQL text: one for character sets in which every byte above
// 127 may stand in a word, one for Shift-JIS, where only whole double-byte characters may. Both are
// generated from literal_scanner.l. A scanner serves one statement: init, set_extra, lex, destroy.
// What it finds goes into the record that set_extra gave it. One thread at a time.

#ifndef LITERAL_SCANNER_H
#define LITERAL_SCANNER_H

#include <stdio.h>

#include "common/literal.h"
#include "common/zd_base.h"

// The generator's names for a scanner and for one of its buffers. It declares them itself, unless
// it is told that somebody did.
#define YY_TYPEDEF_YY_SCANNER_T
typedef void *yyscan_t;
#define YY_TYPEDEF_YY_BUFFER_STATE
typedef struct yy_buffer_state *YY_BUFFER_STATE;

// The operations of a scanner, under its prefix.
//
// lex_init, lex_init_alloc  return 0; without an address for the scanner 1 (errno is EINVAL).
//     lex_init_alloc takes an allocator_t *, from which all memory of the scanner then comes: a
//     refusal goes to its throw. With NULL, and with lex_init, it is the process heap; lex_init
//     returns 1 (ENOMEM) when that has none, and what the heap refuses later on throws
//     ERROR_OUT_OF_PHYSICAL_MEM.
// lex  scans to the end of the text, or to where the statement turns out not to be convertible, and
//     returns 0. The text is what the record has, or what one of the _scan_ operations set before.
// get_lineno, get_column  the place where lex ended: lines from 1, bytes of the line before it.
// What
//     set_lineno and set_column gave is where counting begins.
// alloc, realloc, free  the scanner's memory. A NULL scanner means the process heap.
//
// Streams and the debug flag are kept for whoever asks; the scanner does not use them.
#define LIT_SCANNER_OPERATIONS(prefix)                                                             \
    ZD_API int prefix##lex_init(yyscan_t *scanner);                                                \
    ZD_API int prefix##lex_init_alloc(void *alloc, yyscan_t *scanner);                             \
    ZD_API int prefix##lex_destroy(yyscan_t scanner);                                              \
    ZD_API int prefix##lex(yyscan_t scanner);                                                      \
    ZD_API void prefix##set_extra(literal_scanner_extra_t *extra, yyscan_t scanner);               \
    ZD_API literal_scanner_extra_t *prefix##get_extra(yyscan_t scanner);                           \
    ZD_API YY_BUFFER_STATE prefix##_scan_string(const char *text, yyscan_t scanner);               \
    ZD_API YY_BUFFER_STATE prefix##_scan_bytes(const char *bytes, int len, yyscan_t scanner);      \
    ZD_API YY_BUFFER_STATE prefix##_scan_buffer(char *base, size_t size, yyscan_t scanner);        \
    ZD_API YY_BUFFER_STATE prefix##_create_buffer(FILE *file, int size, yyscan_t scanner);         \
    ZD_API void prefix##_delete_buffer(YY_BUFFER_STATE buffer, yyscan_t scanner);                  \
    ZD_API void prefix##_switch_to_buffer(YY_BUFFER_STATE buffer, yyscan_t scanner);               \
    ZD_API void prefix##push_buffer_state(YY_BUFFER_STATE buffer, yyscan_t scanner);               \
    ZD_API void prefix##pop_buffer_state(yyscan_t scanner);                                        \
    ZD_API void prefix##_flush_buffer(YY_BUFFER_STATE buffer, yyscan_t scanner);                   \
    ZD_API void prefix##restart(FILE *file, yyscan_t scanner);                                     \
    ZD_API int prefix##get_lineno(yyscan_t scanner);                                               \
    ZD_API void prefix##set_lineno(int line, yyscan_t scanner);                                    \
    ZD_API int prefix##get_column(yyscan_t scanner);                                               \
    ZD_API void prefix##set_column(int column, yyscan_t scanner);                                  \
    ZD_API FILE *prefix##get_in(yyscan_t scanner);                                                 \
    ZD_API void prefix##set_in(FILE *in, yyscan_t scanner);                                        \
    ZD_API FILE *prefix##get_out(yyscan_t scanner);                                                \
    ZD_API void prefix##set_out(FILE *out, yyscan_t scanner);                                      \
    ZD_API int prefix##get_debug(yyscan_t scanner);                                                \
    ZD_API void prefix##set_debug(int flag, yyscan_t scanner);                                     \
    ZD_API void *prefix##alloc(size_t size, yyscan_t scanner);                                     \
    ZD_API void *prefix##realloc(void *block, size_t size, yyscan_t scanner);                      \
    ZD_API void prefix##free(void *block, yyscan_t scanner);

ZD_BEGIN_DECLS

LIT_SCANNER_OPERATIONS(lit_yy)
LIT_SCANNER_OPERATIONS(lit_sjis_yy)

ZD_END_DECLS

#endif
