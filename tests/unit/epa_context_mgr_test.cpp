#include "client/zdepa/epa_context_mgr.h"

#include <dlfcn.h>

#include <gmock/gmock.h>

#include <cstring>
#include <filesystem>

#include "client/zdepa/epa_dl_call.h"
#include "client/zdepa/epa_log.h"
#include "common/alloc/region_clialloc.h"
#include "common/alloc/system_clialloc.h"
#include "common/zdmsg/zdmsg_meta_gen.h"
#include "support/agent_context.h"
#include "support/test_allocator.h"

namespace {

class EpaContextMgr : public AgentContextTest {};

const CLI_alloc_t *region(const allocator_t *alloc) {
    return reinterpret_cast<const CLI_alloc_t *>(alloc);
}

TEST_F(EpaContextMgr, AllocatorIsARegionUnderTheSystemAllocator) {
    allocator_t *const alloc = epa_allocator_new();
    EXPECT_EQ(alloc->alloc_type, ALLOC_TYPE_CLIENT_REGION_SYS);
    EXPECT_EQ(alloc->desc, &region_allocator_desc);
    EXPECT_EQ(alloc->parent, &_system_allocator);
    EXPECT_EQ(region(alloc)->total_size, 0u);
    alloc->desc->func_delete(alloc);
}

TEST_F(EpaContextMgr, DeletingTheAllocatorDoesNothing) {
    start();
    epa_allocator_delete();
    EXPECT_EQ(region_alloc_check(epa_ctx_mgr_->alloc, nullptr), 0);
    EXPECT_NE(epa_ctx_mgr_->alloc->parent, nullptr);
}

TEST_F(EpaContextMgr, NewContextLivesInItsAllocator) {
    allocator_t *const alloc = epa_allocator_new();
    epa_context_mgr_t *const context = epa_context_mgr_new(alloc);
    EXPECT_EQ(context->alloc, alloc);
    EXPECT_GE(region(alloc)->total_used, sizeof *context);
    EXPECT_EQ(epa_ctx_mgr_, nullptr); // it becomes the thread's own only by epa_init
    alloc->desc->func_delete(alloc);
}

TEST_F(EpaContextMgr, NothingButTheAllocatorOfANewContextIsSet) {
    TestAllocator alloc;
    epa_context_mgr_t *const context = epa_context_mgr_new(alloc.get());
    EXPECT_EQ(alloc.live_blocks(), 1);
    EXPECT_EQ(alloc.last_size(), 104);
    EXPECT_STREQ(alloc.last_file(), "epa_context_mgr");
    epa_context_mgr_t expected;
    memset(&expected, TestAllocator::kFill, sizeof expected);
    expected.alloc = alloc.get();
    EXPECT_EQ(memcmp(context, &expected, sizeof expected), 0);
    free(context);
}

TEST_F(EpaContextMgr, FilledContextHasNoSocketAndNoConnection) {
    start();
    EXPECT_EQ(epa_ctx_mgr_->fd, -1);
    EXPECT_EQ(epa_ctx_mgr_->henv, 0);
    EXPECT_EQ(epa_ctx_mgr_->hdbc, 0);
    EXPECT_EQ(epa_ctx_mgr_->is_connected, 0);
    EXPECT_TRUE(list_is_empty(&epa_ctx_mgr_->dl_cache_list));
    EXPECT_EQ(epa_ctx_mgr_->dlf, nullptr);
}

TEST_F(EpaContextMgr, FilledContextHasAnEmptyErrorStackInItsAllocator) {
    start();
    EXPECT_EQ(epa_ctx_mgr_->errstack->alloc, epa_ctx_mgr_->alloc);
    EXPECT_EQ(epa_ctx_mgr_->errstack->count, 0);
    EXPECT_EQ(epa_ctx_mgr_->errstack->usrcount, 0);
    EXPECT_EQ(epa_ctx_mgr_->errstack->id_next, 0);
    EXPECT_EQ(epa_ctx_mgr_->errstack->top, nullptr);
}

TEST_F(EpaContextMgr, BuffersHaveRoomForWholeMessages) {
    start();
    memset(epa_ctx_mgr_->recv_buf, 'r', 4096);
    memset(epa_ctx_mgr_->reply_buf, 'w', 4096);
    memset(epa_ctx_mgr_->msg, 0, static_cast<size_t>(zdmsg_get_max_msg_size()));
    EXPECT_EQ(epa_ctx_mgr_->recv_buf[4095], 'r');
    EXPECT_EQ(epa_ctx_mgr_->reply_buf[0], 'w');
    // Freeing looks at the bytes around each block.
    const allocator_desc_t *const operations = epa_ctx_mgr_->alloc->desc;
    operations->func_free(epa_ctx_mgr_->alloc, epa_ctx_mgr_->recv_buf, "test", 1);
    operations->func_free(epa_ctx_mgr_->alloc, epa_ctx_mgr_->reply_buf, "test", 2);
    operations->func_free(epa_ctx_mgr_->alloc, epa_ctx_mgr_->msg, "test", 3);
}

TEST_F(EpaContextMgr, LogIsOpenedAsConfigured) {
    const std::string directory = home_.path() + "/logs";
    start("LOG_DIR=" + directory + "\nLOG_LVL=4\nMAX_LOG_SIZE=2M\nMAX_LOG_BACKUP_SIZE=1M\n");
    const client_log_hdl_t *const log = epa_ctx_mgr_->log_hdl;
    EXPECT_EQ(log->alloc->parent, epa_ctx_mgr_->alloc);
    EXPECT_EQ(log->max_lvl, LOG_LVL_DEBUG);
    EXPECT_EQ(log->dirpath, directory);
    EXPECT_STREQ(log->filepath_prefix, "zdepa.log");
    EXPECT_EQ(log->max_size, 2 << 20);
    EXPECT_EQ(log->max_backup_size, 6 << 20);
    EXPECT_EQ(log->err_func, &epa_exit_abnormally);
    EXPECT_THAT(log->filepath, testing::MatchesRegex(directory + "/zdepa\\.log_[0-9]{14}_" +
                                                     std::to_string(getpid()) + "\\.log"));
    EXPECT_TRUE(std::filesystem::exists(log->filepath));
}

TEST_F(EpaContextMgr, DeletingWithoutAContextDoesNothing) {
    epa_context_mgr_delete();
    EXPECT_EQ(epa_ctx_mgr_, nullptr);
}

TEST_F(EpaContextMgr, ContextThatWasNeverFilledCanBeDeleted) {
    epa_init();
    epa_context_mgr_delete();
    EXPECT_EQ(epa_ctx_mgr_, nullptr);
}

TEST_F(EpaContextMgr, DeletedContextCanBeFollowedByAnother) {
    for (int i = 0; i < 3; i++) {
        epa_init_dir();
        ASSERT_NE(epa_ctx_mgr_, nullptr);
        EXPECT_EQ(home_.agent_dir(), epa_home_dir_);
        EXPECT_EQ(epa_option_->log_dir, epa_home_dir_);
        epa_context_mgr_delete();
        EXPECT_EQ(epa_ctx_mgr_, nullptr);
    }
}

TEST_F(EpaContextMgr, DeletingLeavesNoDescriptorAndNoAllocatorBehind) {
    const auto descriptors = [] {
        const std::filesystem::directory_iterator entries("/proc/self/fd");
        return std::distance(begin(entries), end(entries));
    };
    const auto allocators = [] {
        int count = 0;
        list_for_each(position, &_system_allocator.child) count++;
        return count;
    };
    const auto descriptors_before = descriptors();
    const int allocators_before = allocators();
    for (int i = 0; i < 3; i++) {
        epa_init_dir();
        epa_dlopen(ROUTINES_LIBRARY);
        epa_context_mgr_delete();
    }
    EXPECT_EQ(descriptors(), descriptors_before);
    EXPECT_EQ(allocators(), allocators_before);
}

TEST_F(EpaContextMgr, DeletingClosesEveryCachedLibrary) {
    start();
    epa_dlopen(ROUTINES_LIBRARY);
    epa_dlopen((std::string("/") + ROUTINES_LIBRARY).c_str()); // a second entry for the same file
    EXPECT_NE(dlopen(ROUTINES_LIBRARY, RTLD_LAZY | RTLD_NOLOAD), nullptr);
    dlclose(dlopen(ROUTINES_LIBRARY, RTLD_LAZY | RTLD_NOLOAD));
    dlclose(epa_dlopen(ROUTINES_LIBRARY)); // the reference that the first check took
    epa_context_mgr_delete();
    EXPECT_EQ(dlopen(ROUTINES_LIBRARY, RTLD_LAZY | RTLD_NOLOAD), nullptr);
}

} // namespace
