// The error catalogue: one constant row for every error code of the database system, with the
// texts, the SQLSTATE and the class that server and clients share. Rows live as long as the
// process and nobody frees them. They come from the files of src/common/errors/.

#ifndef ZD_ERR_INFO_H
#define ZD_ERR_INFO_H

#include "common/ec.h"
#include "common/zd_base.h"

static_assert(sizeof(enum ec_e) == sizeof(ec_t), "every code is an ec_t");

// Class of a row.
enum {
    ZD_ERR_TYPE_END = 0,
    ZD_ERR_TYPE_WARNING = 1,
    ZD_ERR_TYPE_INTERNAL = 2,
    ZD_ERR_TYPE_ERROR = 3
};

// The ora_errcode of a row that has no counterpart.
enum { ZD_ERR_NO_FOREIGN_NUMBER = -9999 };

// Codes that user programs give to errors of their own; all of them are described by one row.
enum { ZD_ERR_USER_CODE_FIRST = -20000, ZD_ERR_USER_CODE_LAST = -20999 };

typedef struct zd_err_info_s {
    int code;
    const char *name;     // the enumerator's
    const char *argtypes; // type of each message argument, in order: "ss", "sds", "T64_FMT", ...
    const char *desc;   // printf template with conversions by position; NULL in the end row alone,
    const char *cause;  // as cause
    const char *action; // and action
    char sqlstate[6];   // five characters, or empty
    int ora_errcode;    // the error's number in another system
    int type;
} zd_err_info_t;

static_assert(sizeof(zd_err_info_t) == 64, "zd_err_info_t is part of the ABI");
static_assert(offsetof(zd_err_info_t, name) == 8, "zd_err_info_t is part of the ABI");
static_assert(offsetof(zd_err_info_t, argtypes) == 16, "zd_err_info_t is part of the ABI");
static_assert(offsetof(zd_err_info_t, desc) == 24, "zd_err_info_t is part of the ABI");
static_assert(offsetof(zd_err_info_t, cause) == 32, "zd_err_info_t is part of the ABI");
static_assert(offsetof(zd_err_info_t, action) == 40, "zd_err_info_t is part of the ABI");
static_assert(offsetof(zd_err_info_t, sqlstate) == 48, "zd_err_info_t is part of the ABI");
static_assert(offsetof(zd_err_info_t, ora_errcode) == 56, "zd_err_info_t is part of the ABI");
static_assert(offsetof(zd_err_info_t, type) == 60, "zd_err_info_t is part of the ABI");

static inline int zd_err_is_user_code(ec_t ec) {
    return ZD_ERR_USER_CODE_LAST <= ec && ec <= ZD_ERR_USER_CODE_FIRST;
}

ZD_BEGIN_DECLS

// Every row, by strictly descending code: ERROR_NONE first, ZD_ERR_END_OF_INFO last. A program that
// names the table may get a copy of today's size into its own image, and then has to be linked
// again when rows are added; one that keeps to the functions does not.
ZD_API extern const zd_err_info_t zd_err_info[];

// The row that describes ec, never NULL. A user program's code is described by the row of
// ERROR_PSM_USER_RAISE_APPLICATION; a code that no row describes is an assertion failure.
ZD_API const zd_err_info_t *zd_get_err_info(ec_t ec);

// The same row copied to *usr_errinfo, under the code ec.
ZD_API void zd_get_usr_err_info(ec_t ec, zd_err_info_t *usr_errinfo);

// Exactly this code, not what describes it: 1 or 0, the row or NULL.
ZD_API uchar zd_err_info_exist(ec_t ec);
ZD_API const zd_err_info_t *zd_get_err_info_for_zderr(ec_t ec);

// One field of the row that zd_get_err_info finds, and like it fatal for an unknown code.
ZD_API const char *zd_err_code_to_desc(ec_t ec);
ZD_API const char *zd_err_code_to_sqlstate(ec_t ec);
ZD_API int zd_err_code_to_ora_err_code(ec_t ec);

// By name, case-sensitive; linear. The end row is not among the names. For an unknown name
// ZD_ERR_END_OF_INFO and NULL.
ZD_API ec_t zd_err_name_to_code(const char *errname);
ZD_API const zd_err_info_t *zd_get_err_info_by_name(const char *errname);

ZD_END_DECLS

#endif
