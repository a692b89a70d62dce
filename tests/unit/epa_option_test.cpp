#include "client/zdepa/epa_option.h"

#include <limits.h>

#include "common/alloc/region_clialloc.h"
#include "support/agent_context.h"

namespace {

class EpaOption : public AgentContextTest {
  protected:
    // Only the configuration is read: a log with the settings under test need not open.
    void read(const std::string &configuration) {
        home_.configure(configuration);
        epa_init();
    }
};

TEST_F(EpaOption, MissingFileKeepsTheDefaults) {
    epa_init();
    EXPECT_EQ(epa_option_->log_dir, epa_home_dir_);
    EXPECT_EQ(epa_option_->log_lvl, 2u);
    EXPECT_EQ(epa_option_->stop_at_start, 0);
    EXPECT_EQ(epa_option_->max_log_size, 0);
    EXPECT_EQ(epa_option_->max_log_backup_size, 0);
    EXPECT_EQ(epa_option_->max_dl_cache_cnt, 10);
    EXPECT_EQ(epa_option_->dl_cache_hot_region_cnt, 3);
}

TEST_F(EpaOption, BlanksAroundKeyAndValueAreNotPartOfThem) {
    read(" LOG_LVL = 5 \r\n\tMAX_LOG_SIZE\t=\t10m\t\r\n");
    EXPECT_EQ(epa_option_->log_lvl, 5u);
    EXPECT_EQ(epa_option_->max_log_size, 10485760);
}

TEST_F(EpaOption, HotZoneIsAThirdOfTheCacheAtLeast) {
    read("MAX_DL_CACHE_CNT=30\n");
    EXPECT_EQ(epa_option_->max_dl_cache_cnt, 30);
    EXPECT_EQ(epa_option_->dl_cache_hot_region_cnt, 10);
}

TEST_F(EpaOption, HotZoneBelowAThirdIsRaised) {
    read("MAX_DL_CACHE_CNT=30\nDL_CACHE_HOT_ZONE_CNT=4\n");
    EXPECT_EQ(epa_option_->dl_cache_hot_region_cnt, 10);
}

TEST_F(EpaOption, HotZoneAboveAThirdIsTaken) {
    read("MAX_DL_CACHE_CNT=30\nDL_CACHE_HOT_ZONE_CNT=15\n");
    EXPECT_EQ(epa_option_->dl_cache_hot_region_cnt, 15);
}

TEST_F(EpaOption, HotZoneHasNoUpperBound) {
    read("DL_CACHE_HOT_ZONE_CNT=1000\n");
    EXPECT_EQ(epa_option_->dl_cache_hot_region_cnt, 1000);
}

TEST_F(EpaOption, HotZoneGivenBeforeTheCacheSizeIsOverwritten) {
    read("DL_CACHE_HOT_ZONE_CNT=25\nMAX_DL_CACHE_CNT=30\n");
    EXPECT_EQ(epa_option_->dl_cache_hot_region_cnt, 10);
}

TEST_F(EpaOption, CacheSizeIsTenAtLeast) {
    read("MAX_DL_CACHE_CNT=5\n");
    EXPECT_EQ(epa_option_->max_dl_cache_cnt, 10);
    EXPECT_EQ(epa_option_->dl_cache_hot_region_cnt, 3);
}

TEST_F(EpaOption, MalformedNumberCountsAsZero) {
    read("MAX_DL_CACHE_CNT=many\nLOG_LVL=loud\n");
    EXPECT_EQ(epa_option_->max_dl_cache_cnt, 10);
    EXPECT_EQ(epa_option_->log_lvl, 0u);
}

TEST_F(EpaOption, SizeIsShiftedInThirtyTwoBits) {
    read("MAX_LOG_SIZE=2G\nMAX_LOG_BACKUP_SIZE=4G\n");
    EXPECT_EQ(epa_option_->max_log_size, INT_MIN);
    EXPECT_EQ(epa_option_->max_log_backup_size, 0);
}

TEST_F(EpaOption, LaterLineOverridesAnEarlierOne) {
    read("LOG_LVL=1\nLOG_LVL=4\n");
    EXPECT_EQ(epa_option_->log_lvl, 4u);
}

TEST_F(EpaOption, OnlyTheFirstColumnMakesAComment) {
    read("#LOG_LVL=5\n # LOG_LVL=5\n");
    EXPECT_EQ(epa_option_->log_lvl, 2u);
}

TEST_F(EpaOption, KeysAreCaseSensitiveAndUnknownOnesAreIgnored) {
    read("log_lvl=5\nLOG_LEVEL=5\nstop_at_start=1\nSTOP_AT_START=1\nno equals sign\n");
    EXPECT_EQ(epa_option_->log_lvl, 2u);
    EXPECT_EQ(epa_option_->stop_at_start, 0);
}

TEST_F(EpaOption, KeyIsCutToThirtyOneCharacters) {
    // What is cut off does not count; the blanks that then end the key are none of it.
    read("LOG_LVL" + std::string(24, ' ') + "X=5\nMAX_LOG_SIZE" + std::string(18, ' ') + "X=7\n");
    EXPECT_EQ(epa_option_->log_lvl, 5u);
    EXPECT_EQ(epa_option_->max_log_size, 0);
}

TEST_F(EpaOption, ValueIsCutAtTheFirstEqualsSignOnly) {
    read("LOG_DIR=/tmp/a=b\n");
    EXPECT_STREQ(epa_option_->log_dir, "/tmp/a=b");
}

TEST_F(EpaOption, LineBeyondTheBufferContinuesAsALineOfItsOwn) {
    // fgets hands out 1023 characters at a time: the rest of a long line is read as the next one.
    read("X=" + std::string(1021, 'x') + "LOG_LVL=6\n");
    EXPECT_EQ(epa_option_->log_lvl, 6u);
}

TEST_F(EpaOption, LogDirectoryGivenTwiceLeavesTheHomeDirectoryIntact) {
    read("LOG_DIR=/tmp/one\nLOG_DIR=/tmp/two\n");
    EXPECT_STREQ(epa_option_->log_dir, "/tmp/two");
    EXPECT_EQ(home_.agent_dir(), epa_home_dir_);
}

TEST_F(EpaOption, LogDirectoryThatIsOverriddenIsReleased) {
    const auto used_after = [this](const std::string &configuration) {
        read(configuration);
        const auto *const root = reinterpret_cast<const CLI_alloc_t *>(epa_ctx_mgr_->alloc);
        const uint64_t used = root->total_used;
        epa_context_mgr_delete();
        return used;
    };
    EXPECT_EQ(used_after("LOG_DIR=/tmp/one\nLOG_DIR=/tmp/two\nLOG_DIR=/tmp/six\n"),
              used_after("LOG_DIR=/tmp/one\n"));
}

TEST_F(EpaOption, LastLineNeedsNoNewline) {
    read("LOG_LVL=3");
    EXPECT_EQ(epa_option_->log_lvl, 3u);
}

} // namespace
