#include "client/zdepa/epa_log.h"

#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <cstring>

#include "support/agent_context.h"

namespace {

using testing::EndsWith;
using testing::ExitedWithCode;

// --- values --------------------------------------------------------------------------------------

class EpaLogPrintData : public AgentContextTest {
  protected:
    void SetUp() override { start("LOG_LVL=5\n"); }

    // The one line that printing the value wrote, from behind its header's blank on.
    template <class T>
    std::string line_for(zd_type_ext_t type, T value) {
        return line_for_value(type, &value);
    }

    std::string line_for_value(zd_type_ext_t type, const void *data) {
        const size_t before = home_.log().size();
        epa_log_print_data("..", type, data);
        const std::string line = home_.log().substr(before);
        const size_t level = line.find("[TRC] ");
        return level == std::string::npos ? line : line.substr(level + 6);
    }
};

TEST_F(EpaLogPrintData, SixteenBitsAreReadAsSigned) {
    EXPECT_EQ(line_for(EXT_TYPE_SHORT, int16_t{-2}), "    ..data : [-2]\n");
    EXPECT_EQ(line_for(EXT_TYPE_USHORT, uint16_t{65535}), "    ..data : [-1]\n");
    EXPECT_EQ(line_for(EXT_TYPE_USHORT, uint16_t{32767}), "    ..data : [32767]\n");
}

TEST_F(EpaLogPrintData, ThirtyTwoBitsAreReadAsSigned) {
    EXPECT_EQ(line_for(EXT_TYPE_INT, INT_MIN), "    ..data : [-2147483648]\n");
    EXPECT_EQ(line_for(EXT_TYPE_UINT, UINT_MAX), "    ..data : [-1]\n");
}

TEST_F(EpaLogPrintData, SixtyFourBitsAreReadAsSigned) {
    EXPECT_EQ(line_for(EXT_TYPE_LONG, LONG_MIN), "    ..data : [-9223372036854775808]\n");
    EXPECT_EQ(line_for(EXT_TYPE_ULONG, ULONG_MAX), "    ..data : [-1]\n");
}

TEST_F(EpaLogPrintData, FloatingValuesHaveSixDecimals) {
    EXPECT_EQ(line_for(EXT_TYPE_FLOAT, 1.5f), "    ..data : [1.500000]\n");
    EXPECT_EQ(line_for(EXT_TYPE_DOUBLE, -0.0000004), "    ..data : [-0.000000]\n");
    EXPECT_EQ(line_for(EXT_TYPE_DOUBLE, 1e15), "    ..data : [1000000000000000.000000]\n");
}

TEST_F(EpaLogPrintData, TextIsShownToItsEnd) {
    EXPECT_EQ(line_for_value(EXT_TYPE_STRING, "some %s text"), "    ..data : [some %s text]\n");
    EXPECT_EQ(line_for_value(EXT_TYPE_ZDSTRING, ""), "    ..data : []\n");
    const std::string long_text(3000, 'x');
    EXPECT_EQ(line_for_value(EXT_TYPE_STRING, long_text.c_str()),
              "    ..data : [" + long_text + "]\n");
}

TEST_F(EpaLogPrintData, TypesWithoutAPrintableFormWriteNoLine) {
    for (int type = 0; type <= 25; type++) {
        const bool printed = (type >= EXT_TYPE_SHORT && type <= EXT_TYPE_ULONG) ||
                             type == EXT_TYPE_FLOAT || type == EXT_TYPE_DOUBLE ||
                             type == EXT_TYPE_STRING || type == EXT_TYPE_ZDSTRING;
        EXPECT_EQ(line_for(static_cast<zd_type_ext_t>(type), int64_t{0}).empty(), !printed) << type;
    }
}

TEST_F(EpaLogPrintData, ValueNeedsNoAlignment) {
    char bytes[16] = {};
    const int64_t value = 0x0102030405060708;
    memcpy(bytes + 1, &value, sizeof value);
    EXPECT_EQ(line_for_value(EXT_TYPE_LONG, bytes + 1), "    ..data : [72623859790382856]\n");
    EXPECT_EQ(line_for_value(EXT_TYPE_SHORT, bytes + 1), "    ..data : [1800]\n");
}

TEST_F(EpaLogPrintData, WritesNothingBelowItsLevel) {
    epa_ctx_mgr_->log_hdl->max_lvl = LOG_LVL_DEBUG;
    EXPECT_EQ(line_for(EXT_TYPE_INT, 5), "");
}

// --- the last message ----------------------------------------------------------------------------

class EpaExitAbnormallyDeathTest : public AgentContextTest {
  protected:
    void SetUp() override { ASSERT_EQ(chdir(home_.path().c_str()), 0); }

    void TearDown() override {
        AgentContextTest::TearDown();
        ASSERT_EQ(chdir("/"), 0);
    }

    std::string error_file() const {
        std::ostringstream bytes;
        bytes << std::ifstream(home_.path() + "/extproc.err").rdbuf();
        return bytes.str();
    }
};

TEST_F(EpaExitAbnormallyDeathTest, MessageBecomesALine) {
    start();
    EXPECT_EXIT(epa_exit_abnormally("ignored", 12345, "%s is not %d", "this", 7), ExitedWithCode(1),
                "");
    EXPECT_EQ(error_file(), "this is not 7\n");
}

TEST_F(EpaExitAbnormallyDeathTest, MessageIsAddedToThoseOfEarlierProcesses) {
    start();
    EXPECT_EXIT(epa_exit_abnormally("x", 1, "first"), ExitedWithCode(1), "");
    EXPECT_EXIT(epa_exit_abnormally("x", 1, "second"), ExitedWithCode(1), "");
    EXPECT_EQ(error_file(), "first\nsecond\n");
}

TEST_F(EpaExitAbnormallyDeathTest, LongMessageIsWrittenWhole) {
    start();
    std::string all;
    for (const size_t length : {1023u, 1024u, 1025u, 2047u, 2048u, 5000u}) {
        const std::string text(length, 'x');
        EXPECT_EXIT(epa_exit_abnormally("x", 1, "%s", text.c_str()), ExitedWithCode(1), "");
        all += text + "\n";
        EXPECT_EQ(error_file(), all) << length;
    }
}

TEST_F(EpaExitAbnormallyDeathTest, NeedsNoContext) {
    EXPECT_EXIT(epa_exit_abnormally("x", 1, "before the start"), ExitedWithCode(1), "");
    EXPECT_EQ(error_file(), "before the start\n");
}

// Stands in for the context's allocator where the message finds no room, or only some.
class EpaExitWithoutMemoryDeathTest : public EpaExitAbnormallyDeathTest {
  protected:
    void SetUp() override {
        EpaExitAbnormallyDeathTest::SetUp();
        start();
    }

    // Blocks of up to most bytes can be had; what was asked for is noted.
    void exit_with_memory(int64_t most, const std::string &text) {
        static int64_t most_;
        static void *block_; // kept where it is found: an exit need not return it
        most_ = most;
        static allocator_desc_t operations = *epa_ctx_mgr_->alloc->desc;
        operations.func_calloc = [](allocator_t *, int64_t bytes, const char *, int) -> void * {
            fprintf(stderr, "calloc %ld\n", bytes);
            return block_ = bytes <= most_ ? calloc(1, static_cast<size_t>(bytes)) : nullptr;
        };
        operations.func_realloc = [](allocator_t *, void *, int64_t bytes, const char *,
                                     int) -> void * {
            fprintf(stderr, "realloc %ld\n", bytes);
            return bytes <= most_ ? block_ = realloc(block_, static_cast<size_t>(bytes)) : nullptr;
        };
        operations.func_free = [](allocator_t *, void *block, const char *, int) {
            fprintf(stderr, "free\n");
            free(block);
        };
        epa_ctx_mgr_->alloc->desc = &operations;
        epa_exit_abnormally("x", 1, "%s", text.c_str());
    }
};

TEST_F(EpaExitWithoutMemoryDeathTest, MessageHasItsRoomInStepsOf1024Bytes) {
    const std::string text(2048, 'x');
    EXPECT_EXIT(exit_with_memory(INT64_MAX, text), ExitedWithCode(1),
                "^calloc 1024\nrealloc 2048\nrealloc 3072\nfree\n$");
    EXPECT_EQ(error_file(), text + "\n");
}

TEST_F(EpaExitWithoutMemoryDeathTest, SizeThatCannotBeHadIsWrittenInPlaceOfTheMessage) {
    EXPECT_EXIT(exit_with_memory(0, "short"), ExitedWithCode(1), "^calloc 1024\n$");
    EXPECT_EXIT(exit_with_memory(2048, std::string(2048, 'x')), ExitedWithCode(1),
                "^calloc 1024\nrealloc 2048\nrealloc 3072\n$");
    EXPECT_EQ(error_file(), "malloc [1024] failed\nmalloc [3072] failed\n");
}

TEST_F(EpaExitAbnormallyDeathTest, FileThatCannotBeOpenedEndsTheProcessAllTheSame) {
    start();
    ASSERT_EQ(mkdir("extproc.err", 0700), 0);
    EXPECT_EXIT(epa_exit_abnormally("x", 1, "lost"), ExitedWithCode(1), "^$");
}

} // namespace
