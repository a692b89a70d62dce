// What a scan of SQL text leaves behind: the literals, and the bind names that are already taken;
// and the record through which a scanner is fed and reports.

#ifndef LITERAL_H
#define LITERAL_H

#include "common/alloc/allocator.h"
#include "common/listc.h"
#include "common/zd_base.h"
#include "common/zd_type.h"

// One literal of a statement. Record and text are blocks of the scan's allocator.
typedef struct literal_s {
    char *text; // as written, with quotes and N prefix, terminated
    int offset; // of its first byte in the statement
    int diff;   // set by lit_cnv_get_replaced_sql: length of the text less that of its bind name
    int idx;    // counts the recorded literals, from 1
    zd_type_t type; // ZD_TYPE_NUMBER, ZD_TYPE_CHAR or ZD_TYPE_NCHAR
} literal_t;

static_assert(sizeof(literal_t) == 24, "literal_t is part of the ABI");
static_assert(offsetof(literal_t, offset) == 8, "literal_t is part of the ABI");
static_assert(offsetof(literal_t, diff) == 12, "literal_t is part of the ABI");
static_assert(offsetof(literal_t, idx) == 16, "literal_t is part of the ABI");
static_assert(offsetof(literal_t, type) == 20, "literal_t is part of the ABI");

enum { LITERAL_B_LETTERS_MAX = 29, LITERAL_ALPHA_LETTERS = 4 };

// Bind names of some number of letters B and digits behind them.
typedef struct b_param_info_s {
    uchar exists;          // 1: there is such a name
    int32_t digit_len_bit; // bit k - 1: there is one with k digits
} b_param_info_t;

static_assert(sizeof(b_param_info_t) == 8, "b_param_info_t is part of the ABI");
static_assert(offsetof(b_param_info_t, digit_len_bit) == 4, "b_param_info_t is part of the ABI");

// What the choice of a prefix needs to know of a statement.
typedef struct auto_param_info_s {
    int literal_cnt;
    uchar has_sys_bind_name;                             // 1: a name of the system's own family
    b_param_info_t b_param_infos[LITERAL_B_LETTERS_MAX]; // [i]: names of i + 1 letters B
    int alpha4[LITERAL_ALPHA_LETTERS]; // [j], bit c: a name of four letters has c at place j
} auto_param_info_t;

static_assert(sizeof(auto_param_info_t) == 256, "auto_param_info_t is part of the ABI");
static_assert(offsetof(auto_param_info_t, b_param_infos) == 8,
              "auto_param_info_t is part of the ABI");
static_assert(offsetof(auto_param_info_t, alpha4) == 240, "auto_param_info_t is part of the ABI");

// What a scanner works on. It reads the statement through stmt and stmt_len, which move on; the
// statement itself stays where it is until the scan has ended, for texts are copied out of it.
typedef struct literal_scanner_extra_s {
    allocator_t *alloc;
    char *stmt;
    unsigned int stmt_len;
    listc_t *literal_list;
    uchar big_lit_only; // 1: literals of less than 64 KiB are not recorded
    auto_param_info_t *ap_info;
} literal_scanner_extra_t;

static_assert(sizeof(literal_scanner_extra_t) == 48, "literal_scanner_extra_t is part of the ABI");
static_assert(offsetof(literal_scanner_extra_t, stmt) == 8,
              "literal_scanner_extra_t is part of the ABI");
static_assert(offsetof(literal_scanner_extra_t, stmt_len) == 16,
              "literal_scanner_extra_t is part of the ABI");
static_assert(offsetof(literal_scanner_extra_t, literal_list) == 24,
              "literal_scanner_extra_t is part of the ABI");
static_assert(offsetof(literal_scanner_extra_t, big_lit_only) == 32,
              "literal_scanner_extra_t is part of the ABI");
static_assert(offsetof(literal_scanner_extra_t, ap_info) == 40,
              "literal_scanner_extra_t is part of the ABI");

#endif
