#include "client/zdepa/epa_type.h"

#include "common/ec.h"
#include "common/zd_err.h"

__thread epa_context_mgr_t *epa_ctx_mgr_;

int get_zd_type_size(zd_type_t zd_type) {
    switch (zd_type) {
    case ZD_TYPE_NONE:
        return 0;
    case ZD_TYPE_BIN_FLOAT:
    case ZD_TYPE_PLS_INT:
    case ZD_TYPE_BIN_INT:
        return 4;
    case ZD_TYPE_BIN_DOUBLE:
        return 8;
    default:
        zd_push_and_throw(epa_ctx_mgr_->errstack, "epa_type", 37, "get_zd_type_size",
                          ERROR_EPA_NOT_SUPPORTED_SQL_TYPE);
    }
}
