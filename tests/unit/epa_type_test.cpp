#include "client/zdepa/epa_type.h"

#include "client/common/client_try.h"
#include "common/ec.h"
#include "support/agent_context.h"

namespace {

class EpaType : public AgentContextTest {};

TEST_F(EpaType, ByValueSizesAreNoneFourOrEight) {
    EXPECT_EQ(get_zd_type_size(ZD_TYPE_NONE), 0);
    EXPECT_EQ(get_zd_type_size(ZD_TYPE_BIN_FLOAT), 4);
    EXPECT_EQ(get_zd_type_size(ZD_TYPE_BIN_DOUBLE), 8);
    EXPECT_EQ(get_zd_type_size(ZD_TYPE_PLS_INT), 4);
    EXPECT_EQ(get_zd_type_size(ZD_TYPE_BIN_INT), 4);
}

TEST_F(EpaType, EveryOtherTypeIsRefused) {
    start();
    for (int type = 1; type <= 255; type++) {
        if (type == 23 || type == 24 || type == 26 || type == 27)
            continue;
        EXPECT_EQ(client_try([&] { get_zd_type_size(static_cast<zd_type_t>(type)); }),
                  ERROR_EPA_NOT_SUPPORTED_SQL_TYPE)
            << type;
        const zd_err_inst_t *const error = zd_err_stack_get(epa_ctx_mgr_->errstack, 0);
        ASSERT_NE(error, nullptr);
        EXPECT_EQ(error->code, -140014);
        EXPECT_STREQ(error->file, "epa_type");
        EXPECT_EQ(error->line, 37);
        EXPECT_STREQ(error->func, "get_zd_type_size");
        zd_err_stack_clear(epa_ctx_mgr_->errstack);
    }
}

} // namespace
