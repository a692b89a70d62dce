#include "common/zd_err_inst.h"

#include <string.h>

#include "client/common/client_assert.h"
#include "common/zd_dump.h"

// Errors further from 0 are internal conditions.
static constexpr int kInternalOffset = 500000;

const zd_src_pos_t _zd_src_pos_null = {};

static void fill_text(char *to, size_t size, const char *from) {
    const size_t length = strnlen(from, size - 1);
    memcpy(to, from, length);
    memset(to + length, 0, size - length);
}

// The smallest int is its own negative, in two's complement, and with that a user error.
static bool is_user_error(ec_t code) {
    return static_cast<int>(0u - static_cast<unsigned int>(code)) < kInternalOffset;
}

zd_err_inst_t *zd_err_inst_new(allocator_t *alloc, const zd_err_args_t *args,
                               const zd_err_info_t *errinfo, const char *err_desc_str) {
    zd_err_inst_t *const errinst = static_cast<zd_err_inst_t *>(
        zd_malloc(alloc, sizeof(zd_err_inst_t), "zd_err_inst", __LINE__));
    errinst->next = nullptr;
    errinst->id = ZD_ERR_ID_NONE;
    errinst->code = errinfo != nullptr ? errinfo->code : args->ec;
    errinst->obj_id = args->obj_id;
    errinst->err_num = static_cast<unsigned int>(args->errnum);
    errinst->is_usrerr = is_user_error(errinst->code);
    if (errinfo != nullptr)
        memcpy(errinst->sqlstate, errinfo->sqlstate, sizeof errinst->sqlstate);
    else
        memset(errinst->sqlstate, 0, sizeof errinst->sqlstate);
    fill_text(errinst->complete_desc, sizeof errinst->complete_desc, err_desc_str);
    errinst->obj_id_occurred = ZD_ERR_OBJ_ID_UNKNOWN;
    errinst->src_pos = *args->src_pos;
    fill_text(errinst->file, sizeof errinst->file, args->file);
    errinst->line = args->line;
    fill_text(errinst->func, sizeof errinst->func, args->func);
    return errinst;
}

void zd_err_inst_copy(zd_err_inst_t *dest, const zd_err_inst_t *src) {
    *dest = *src;
    dest->next = nullptr;
    dest->file[ZD_ERR_FILE_SIZE - 1] = '\0';
    dest->func[ZD_ERR_FUNC_SIZE - 1] = '\0';
}

zd_err_inst_t *zd_err_inst_duplicate(allocator_t *alloc, const zd_err_inst_t *src) {
    zd_err_inst_t *const errinst = static_cast<zd_err_inst_t *>(
        zd_malloc(alloc, sizeof(zd_err_inst_t), "zd_err_inst", __LINE__));
    zd_err_inst_copy(errinst, src);
    return errinst;
}

void zd_err_inst_destroy(zd_err_inst_t *errinst, allocator_t *alloc) {
    ZD_ASSERT_AT("zd_err_inst", 78, errinst != NULL);
    zd_free(alloc, errinst, "zd_err_inst", __LINE__);
}

uchar zd_err_inst_match(const zd_err_inst_t *errinst, int code, unsigned int obj_id,
                        unsigned int err_num) {
    if (errinst->code != code)
        return 0;
    return code != ERROR_PSM_USER_DEFINED ||
           (errinst->obj_id == obj_id && errinst->err_num == err_num);
}

void zd_err_inst_to_str(char *str, const zd_err_inst_t *errinst, int len) {
    ZD_ASSERT("zd_err_inst", len > 0);
    fill_text(str, static_cast<size_t>(len), errinst->complete_desc);
}

// An error that came from a peer may have a code that only the peer knows.
static const char *code_name(ec_t code) {
    const zd_err_info_t *const info = zd_get_err_info_for_zderr(
        zd_err_is_user_code(code) ? static_cast<ec_t>(ERROR_PSM_USER_RAISE_APPLICATION) : code);
    return info != nullptr ? info->name : nullptr;
}

void zd_err_inst_dump(dstream_t *dstream, const zd_err_inst_t *errinst) {
    const char *const name = code_name(errinst->code);
    const zd_src_pos_t *const span = &errinst->src_pos;
    dprint(dstream, "code = %d (", errinst->code);
    if (name != nullptr)
        dprint(dstream, "%s)\n", name);
    else
        dprint(dstream, "invalid code)\n");
    dprint(dstream, "is_usrerr = %d\n", errinst->is_usrerr);
    dprint(dstream, "(desc = \"%s\")\n", errinst->complete_desc);
    dprint(dstream, "first line = %d, first col = %d\n", span->first.line, span->first.col);
    dprint(dstream, "last line = %d, last col = %d\n", span->last.line, span->last.col);
    dprint(dstream, "file = <%s>\n", errinst->file);
    dprint(dstream, "line = %d\n", errinst->line);
    dprint(dstream, "func = <%s>\n", errinst->func);
    dprint(dstream, "-------------------------------\n");
}
