#include "common/zd_err_info.h"

#include <string.h>

#include "client/common/client_assert.h"

constexpr zd_err_info_t zd_err_info[] = {
#include "common/zd_err_info_rows.inc"
};

static constexpr size_t kRowCount = sizeof zd_err_info / sizeof zd_err_info[0];

static consteval bool codes_descend_strictly() {
    for (size_t i = 1; i < kRowCount; i++)
        if (zd_err_info[i - 1].code <= zd_err_info[i].code)
            return false;
    return true;
}
static_assert(codes_descend_strictly(), "the binary search relies on the order");
static_assert(zd_err_info[0].code == ERROR_NONE);
static_assert(zd_err_info[kRowCount - 1].code == ZD_ERR_END_OF_INFO);

const zd_err_info_t *zd_get_err_info_for_zderr(ec_t ec) {
    size_t low = 0;
    size_t high = kRowCount;
    while (low < high) {
        const size_t middle = low + (high - low) / 2;
        const zd_err_info_t *const row = &zd_err_info[middle];
        if (row->code == ec)
            return row;
        if (row->code < ec)
            high = middle;
        else
            low = middle + 1;
    }
    return nullptr;
}

static const zd_err_info_t *find_describing_row(ec_t ec) {
    return zd_get_err_info_for_zderr(
        zd_err_is_user_code(ec) ? static_cast<ec_t>(ERROR_PSM_USER_RAISE_APPLICATION) : ec);
}

const zd_err_info_t *zd_get_err_info(ec_t ec) {
    const zd_err_info_t *const row = find_describing_row(ec);
    if (ZD_UNLIKELY(row == nullptr))
        zd_assert_fail("false", "zd_err_info", 102);
    return row;
}

void zd_get_usr_err_info(ec_t ec, zd_err_info_t *usr_errinfo) {
    ZD_ASSERT_AT("zd_err_info", 142, usr_errinfo != NULL);
    const zd_err_info_t *const err_info = find_describing_row(ec);
    ZD_ASSERT_AT("zd_err_info", 149, err_info != NULL);
    *usr_errinfo = *err_info;
    usr_errinfo->code = ec;
}

uchar zd_err_info_exist(ec_t ec) {
    return zd_get_err_info_for_zderr(ec) != nullptr;
}

const char *zd_err_code_to_desc(ec_t ec) {
    return zd_get_err_info(ec)->desc;
}

const char *zd_err_code_to_sqlstate(ec_t ec) {
    return zd_get_err_info(ec)->sqlstate;
}

int zd_err_code_to_ora_err_code(ec_t ec) {
    return zd_get_err_info(ec)->ora_errcode;
}

const zd_err_info_t *zd_get_err_info_by_name(const char *errname) {
    for (const zd_err_info_t *row = zd_err_info; row->code != ZD_ERR_END_OF_INFO; row++)
        if (strcmp(row->name, errname) == 0)
            return row;
    return nullptr;
}

ec_t zd_err_name_to_code(const char *errname) {
    const zd_err_info_t *const row = zd_get_err_info_by_name(errname);
    return row == nullptr ? static_cast<ec_t>(ZD_ERR_END_OF_INFO) : row->code;
}
