// One error: its code, formatted message, SQLSTATE, and where in the code and in the SQL text it
// was raised. An instance is made in an allocator, usually that of the stack that it is pushed on
// (zd_err_stack.h); from then on the stack owns it until it is popped.

#ifndef ZD_ERR_INST_H
#define ZD_ERR_INST_H

#include "common/alloc/allocator.h"
#include "common/zd_err_info.h"

// A position in a source text, and a span between two of them.
typedef struct zd_pos_s {
    int line;
    int col;
    int offset;
} zd_pos_t;

typedef struct zd_src_pos_s {
    zd_pos_t first;
    zd_pos_t last;
} zd_src_pos_t;

// What a raise site supplies.
typedef struct zd_err_args_s {
    ec_t ec;
    int errnum;
    unsigned int obj_id;
    const zd_src_pos_t *src_pos;
    const char *file;
    int line;
    const char *func;
} zd_err_args_t;

enum { ZD_ERR_DESC_SIZE = 712, ZD_ERR_FILE_SIZE = 80, ZD_ERR_FUNC_SIZE = 80 };

// The id of an instance that no stack has numbered yet, and the object of an error that occurred
// nobody knows where.
enum { ZD_ERR_ID_NONE = -1 };
#define ZD_ERR_OBJ_ID_UNKNOWN 0xFFFFFFFFu

// Texts fill their arrays with zeros behind their terminating zero: the arrays travel whole.
typedef struct zd_err_inst_s {
    struct zd_err_inst_s *next; // the instance below on the stack
    int id;                     // given by the stack
    ec_t code;
    unsigned int obj_id;  // object that the error concerns, 0: none
    unsigned int err_num; // tells errors of the code ERROR_PSM_USER_DEFINED apart
    uchar is_usrerr;      // 1: meant for the user; 0: an internal condition
    char sqlstate[6];
    char complete_desc[ZD_ERR_DESC_SIZE];
    unsigned int obj_id_occurred;
    zd_src_pos_t src_pos;
    char file[ZD_ERR_FILE_SIZE];
    int line;
    char func[ZD_ERR_FUNC_SIZE];
} zd_err_inst_t;

static_assert(sizeof(zd_src_pos_t) == 24, "zd_src_pos_t is part of the ABI");
static_assert(sizeof(zd_err_args_t) == 48, "zd_err_args_t is part of the ABI");
static_assert(offsetof(zd_err_args_t, errnum) == 4, "zd_err_args_t is part of the ABI");
static_assert(offsetof(zd_err_args_t, obj_id) == 8, "zd_err_args_t is part of the ABI");
static_assert(offsetof(zd_err_args_t, src_pos) == 16, "zd_err_args_t is part of the ABI");
static_assert(offsetof(zd_err_args_t, file) == 24, "zd_err_args_t is part of the ABI");
static_assert(offsetof(zd_err_args_t, line) == 32, "zd_err_args_t is part of the ABI");
static_assert(offsetof(zd_err_args_t, func) == 40, "zd_err_args_t is part of the ABI");
static_assert(sizeof(zd_err_inst_t) == 936, "zd_err_inst_t is part of the ABI");
static_assert(offsetof(zd_err_inst_t, id) == 8, "zd_err_inst_t is part of the ABI");
static_assert(offsetof(zd_err_inst_t, code) == 12, "zd_err_inst_t is part of the ABI");
static_assert(offsetof(zd_err_inst_t, obj_id) == 16, "zd_err_inst_t is part of the ABI");
static_assert(offsetof(zd_err_inst_t, err_num) == 20, "zd_err_inst_t is part of the ABI");
static_assert(offsetof(zd_err_inst_t, is_usrerr) == 24, "zd_err_inst_t is part of the ABI");
static_assert(offsetof(zd_err_inst_t, sqlstate) == 25, "zd_err_inst_t is part of the ABI");
static_assert(offsetof(zd_err_inst_t, complete_desc) == 31, "zd_err_inst_t is part of the ABI");
static_assert(offsetof(zd_err_inst_t, obj_id_occurred) == 744, "zd_err_inst_t is part of the ABI");
static_assert(offsetof(zd_err_inst_t, src_pos) == 748, "zd_err_inst_t is part of the ABI");
static_assert(offsetof(zd_err_inst_t, file) == 772, "zd_err_inst_t is part of the ABI");
static_assert(offsetof(zd_err_inst_t, line) == 852, "zd_err_inst_t is part of the ABI");
static_assert(offsetof(zd_err_inst_t, func) == 856, "zd_err_inst_t is part of the ABI");

ZD_BEGIN_DECLS

// The span for an error that has no position in a text.
ZD_API extern const zd_src_pos_t _zd_src_pos_null;

// A new instance from alloc, or its throw. Code and SQLSTATE come from errinfo; where errinfo is
// NULL the code is args->ec and the SQLSTATE is left all zero for the caller to fill. Longer texts
// are cut: the message at 711 characters, file and function at 79.
ZD_API zd_err_inst_t *zd_err_inst_new(allocator_t *alloc, const zd_err_args_t *args,
                                      const zd_err_info_t *errinfo, const char *err_desc_str);

// Everything but the place on a stack: dest->next becomes NULL.
ZD_API void zd_err_inst_copy(zd_err_inst_t *dest, const zd_err_inst_t *src);

// A copy in a new instance from alloc, or its throw.
ZD_API zd_err_inst_t *zd_err_inst_duplicate(allocator_t *alloc, const zd_err_inst_t *src);

// Gives the instance, which must not be NULL, back to the allocator that it came from.
ZD_API void zd_err_inst_destroy(zd_err_inst_t *errinst, allocator_t *alloc);

// 1 when the instance is the error asked for, else 0. The object and the number count for
// ERROR_PSM_USER_DEFINED alone.
ZD_API uchar zd_err_inst_match(const zd_err_inst_t *errinst, int code, unsigned int obj_id,
                               unsigned int err_num);

// The message, cut to len - 1 characters, and zeros up to str[len - 1]. Requires len > 0.
ZD_API void zd_err_inst_to_str(char *str, const zd_err_inst_t *errinst, int len);

ZD_API void zd_err_inst_dump(dstream_t *dstream, const zd_err_inst_t *errinst);

ZD_END_DECLS

#endif
