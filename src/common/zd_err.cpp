#include "common/zd_err.h"

#include <stdio.h>

#include "client/common/client_assert.h"

static void format_message(char (&message)[ZD_ERR_DESC_SIZE], const zd_err_info_t *info,
                           va_list errargs) {
    // The end row has no template.
    if (info->desc == nullptr || vsnprintf(message, sizeof message, info->desc, errargs) < 0)
        message[0] = '\0';
    message[sizeof message - 1] = '\0';
}

void zd_err_internal(zd_err_stack_t *errstack, const zd_err_args_t *args, va_list errargs) {
    ZD_ASSERT("zd_err", errstack != NULL);
    if (args->ec == ERROR_NONE) {
        zd_err_clear(errstack);
        return;
    }
    const zd_err_info_t *info;
    zd_err_info_t user_info;
    if (zd_err_is_user_code(args->ec)) {
        zd_get_usr_err_info(args->ec, &user_info);
        info = &user_info;
    } else {
        info = zd_get_err_info(args->ec);
    }
    char message[ZD_ERR_DESC_SIZE];
    format_message(message, info, errargs);
    zd_err_stack_push(errstack, zd_err_inst_new(errstack->alloc, args, info, message));
}

ec_t zd_err_internal_valist(zd_err_stack_t *errstack, const char *file, int line, const char *func,
                            ec_t ec, va_list errargs) {
    const zd_err_args_t args = {ec, 0, 0, &_zd_src_pos_null, file, line, func};
    zd_err_internal(errstack, &args, errargs);
    return ec;
}

ec_t zd_err_internal_va(zd_err_stack_t *errstack, const char *file, int line, const char *func,
                        ec_t ec, ...) {
    va_list errargs;
    va_start(errargs, ec);
    zd_err_internal_valist(errstack, file, line, func, ec, errargs);
    va_end(errargs);
    return ec;
}

void zd_err_clear(zd_err_stack_t *errstack) {
    ZD_ASSERT("zd_err", errstack != NULL);
    ZD_ASSERT_AT("zd_err", 62, errstack->usrcount == 0);
    zd_err_stack_clear(errstack);
}
