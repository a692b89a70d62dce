// Takes the literals out of a SQL statement: generated bind names stand in their places, so that
// statements that differ in nothing else can share a plan. Three calls, in this order: the
// literals, a prefix for the names, the new text. List, literals, prefix and text are the caller's,
// from the allocator that was given; what it refuses goes to its throw. Without a statement or an
// allocator an assertion fails.

#ifndef LIT_CNV_H
#define LIT_CNV_H

#include "common/literal.h"
#include "common/literal_scanner.h"
#include "common/str_util.h"

typedef enum zd_scanner_id_type_e {
    ZD_SCANNER_ID_COMMON_ASCII = 0, // every byte above 127 may stand in a word
    ZD_SCANNER_ID_SJIS = 1,
    ZD_SCANNER_ID_MAX = 2
} zd_scanner_id_type_t;

// The operations of one scanner.
typedef struct lit_scanner_wrap_s {
    int (*init)(void *alloc, yyscan_t *scanner);
    int (*destroy)(yyscan_t scanner);
    int (*lex)(yyscan_t scanner);
    void (*set_extra)(literal_scanner_extra_t *extra, yyscan_t scanner);
} lit_scanner_wrap_t;

static_assert(sizeof(lit_scanner_wrap_t) == 32, "lit_scanner_wrap_t is part of the ABI");

// What the system knows of a character set.
typedef struct zdstr_charset_info_s {
    zd_scanner_id_type_t scanner_id_type; // who finds literals in texts of it
} zdstr_charset_info_t;

ZD_BEGIN_DECLS

ZD_API extern const lit_scanner_wrap_t lit_scanner[ZD_SCANNER_ID_MAX];
ZD_API extern const zdstr_charset_info_t _charset_info[ZDSTR_CHARSET_MAX];

// The literals of the statement, in order: literal_t as data of the list. Empty when the statement
// does not begin with a word of data manipulation, or ends inside a comment. With big_lit_only
// those of less than 64 KiB stay in the text. ap_info is filled.
ZD_API listc_t *lit_cnv_get_literal_list(char *stmt, uchar big_lit_only, auto_param_info_t *ap_info,
                                         zdstr_charset_t charset, allocator_t *alloc);

// With what generated names may begin so that they differ from every bind name of the statement:
// the system's own prefix, unless the statement has such names or is_cli says that the caller is a
// client. When all are taken, throws ERROR_LC_PREFIX_GEN_FAILED without pushing it. Two threads
// must not be in it at once.
ZD_API char *lit_cnv_get_param_prefix(auto_param_info_t *ap_info, uchar is_cli, allocator_t *alloc);

// The statement with a name in place of each literal: the prefix, the literal's number from 0, with
// leading zeros as the last one needs them, and the closing quote. Sets diff of each literal. The
// list is in the order of the offsets, as lit_cnv_get_literal_list made it.
ZD_API char *lit_cnv_get_replaced_sql(char *stmt, char *param_prefix, listc_t *literal_list,
                                      allocator_t *alloc);

ZD_END_DECLS

#endif
