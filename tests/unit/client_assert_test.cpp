#include "client/common/client_assert.h"

#include <errno.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "common/zdmsg/zdmsg_record.h"

namespace {

template <class Body>
std::string stderr_of(Body body) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

TEST(ClientAssert, ReportIsOneLineWithProcessAndThread) {
    const std::string expected =
        "unit:7: Assertion fail with condition 'a < b' (PID=" + std::to_string(getpid()) +
        ", pthread id=" + std::to_string(static_cast<unsigned int>(pthread_self())) + ")\n";
    EXPECT_EQ(stderr_of([] { zd_assert_msg("a < b", "unit", 7); }), expected);
}

TEST(ClientAssert, DetailFormsFollowTheSizes) {
    EXPECT_EQ(stderr_of([] {
                  zd_assert_msg_detail("c", 4, "unit", 9, "fn", "one", 1, 'A', "two", 2, -1, "four",
                                       4, -2, "eight", 8, -3L);
              }),
              "unit:9:fn: Assert failed: c (4 args)"
              "\n\tone = 'A' = 0x41"
              "\n\ttwo = -1 = 65535 = 0xffff"
              "\n\tfour = -2 = 4294967294 = 0xfffffffe"
              "\n\teight = -3 = 18446744073709551613 = 0xfffffffffffffffd\n");
}

TEST(ClientAssert, DetailStopsAtAValueOfAnotherSize) {
    EXPECT_EQ(stderr_of([] {
                  zd_assert_msg_detail("c", 2, "unit", 9, "fn", "first", 4, 5, "second", 3, 6);
              }),
              "unit:9:fn: Assert failed: c (2 args)\n\tfirst = 5 = 5 = 0x5\n");
}

TEST(ClientAssert, DetailWithoutValuesIsTheConditionAlone) {
    EXPECT_EQ(stderr_of([] { zd_assert_msg_detail("c", 0, "unit", 9, "fn"); }),
              "unit:9:fn: Assert failed: c (0 args)\n");
}

TEST(ClientAssert, DetailPrintsNoMoreValuesThanItsCount) {
    EXPECT_EQ(stderr_of([] {
                  zd_assert_msg_detail("c", 1, "unit", 9, "fn", "first", 4, 5, "second", 4, 6);
              }),
              "unit:9:fn: Assert failed: c (1 args)\n\tfirst = 5 = 5 = 0x5\n");
}

TEST(ClientAssert, DetailOfAByteShowsNoMoreThanTheByte) {
    EXPECT_EQ(
        stderr_of([] { zd_assert_msg_detail("c", 1, "unit", 9, "fn", "byte", 1, 'z' - 0x100); }),
        "unit:9:fn: Assert failed: c (1 args)\n\tbyte = 'z' = 0x7a\n");
}

// Behind its last report the process ends without another word to its streams.
[[noreturn]] void report_through_a_buffer(void (*report)()) {
    static char buffer[4096];
    setvbuf(stderr, buffer, _IOFBF, sizeof buffer);
    report();
    _exit(0);
}

TEST(ClientAssertDeathTest, ReportsAreOutWhenTheCallReturns) {
    EXPECT_EXIT(report_through_a_buffer([] { zd_assert_msg("c", "unit", 7); }),
                testing::ExitedWithCode(0), "^unit:7: Assertion fail with condition 'c' ");
    EXPECT_EXIT(report_through_a_buffer([] { zd_assert_msg_detail("c", 0, "unit", 9, "fn"); }),
                testing::ExitedWithCode(0), "^unit:9:fn: Assert failed: c \\(0 args\\)\n$");
    EXPECT_EXIT(report_through_a_buffer([] {
                    static char bytes[ZDMSG_HDR_SIZE] = {};
                    const zdmsg_t msg = {bytes + ZDMSG_HDR_SIZE, 0, 0, 139, 0, 0};
                    zd_asserted_zdmsg_dump(&msg);
                }),
                testing::ExitedWithCode(0), "^\\[ZDMSG Dump\\]\n(.*\n)*\\[raw msg body\\]\n\n$");
}

TEST(ClientAssert, DetailOfErrnoCarriesItsText) {
    EXPECT_EQ(stderr_of([] {
                  errno = ENOENT;
                  zd_assert_msg_detail("c", 1, "unit", 9, "fn", "errno", 4, errno);
              }),
              "unit:9:fn: Assert failed: c (1 args)"
              "\n\terrno = 2 = 2 = 0x2 No such file or directory\n");
}

std::string dump_without_time(const zdmsg_t &msg) {
    std::string text = stderr_of([&] { zd_asserted_zdmsg_dump(&msg); });
    const size_t start = text.find("created at ");
    const size_t end = text.find('\n', start);
    EXPECT_EQ(end - start, std::string("created at 2024/01/02 03:04:05.000006").size()) << text;
    return text.erase(start, end - start);
}

// The local time with its microseconds, as the dump writes it.
std::string created_at(const timeval &time) {
    tm local;
    localtime_r(&time.tv_sec, &local);
    char text[64];
    const size_t length = strftime(text, sizeof text, "created at %Y/%m/%d %H:%M:%S", &local);
    snprintf(text + length, sizeof text - length, ".%06ld", time.tv_usec);
    return text;
}

TEST(ClientAssert, MessageDumpTellsTheLocalTime) {
    char bytes[ZDMSG_HDR_SIZE] = {};
    const zdmsg_t msg = {bytes + ZDMSG_HDR_SIZE, 0, 0, 139, 0, 0};
    timeval before;
    timeval after;
    gettimeofday(&before, nullptr);
    const std::string dump = stderr_of([&] { zd_asserted_zdmsg_dump(&msg); });
    gettimeofday(&after, nullptr);
    const size_t start = dump.find("created at ");
    ASSERT_NE(start, std::string::npos) << dump;
    const std::string line = dump.substr(start, dump.find('\n', start) - start);
    EXPECT_GE(line, created_at(before));
    EXPECT_LE(line, created_at(after));
}

TEST(ClientAssert, MessageDumpBreaksTheBodyAfterThirtySixBytes) {
    char bytes[ZDMSG_HDR_SIZE + 40];
    for (size_t i = 0; i < sizeof bytes; i++)
        bytes[i] = static_cast<char>(i < ZDMSG_HDR_SIZE ? 0xA0 + i : i - ZDMSG_HDR_SIZE);
    zdmsg_t msg = {bytes + ZDMSG_HDR_SIZE, 1, 0, 140, 40, 77};
    EXPECT_EQ(dump_without_time(msg),
              "[ZDMSG Dump]\n\n"
              "type: 140\nbodysize: 40\ntsn: 77\nstr_auto_free: 1\n"
              "[raw msg header]\nA0A1A2A3 A4A5A6A7 A8A9AAAB ACADAEAF \n"
              "[raw msg body]\n"
              "00010203 04050607 08090A0B 0C0D0E0F 10111213 14151617 18191A1B 1C1D1E1F 20212223\n"
              "24252627 \n");
}

TEST(ClientAssert, MessageDumpSurvivesABodyWithNothingReadableBeforeIt) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    char *const pages =
        static_cast<char *>(mmap(nullptr, 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pages, MAP_FAILED);
    ASSERT_EQ(mprotect(pages + page, page, PROT_READ | PROT_WRITE), 0);
    zdmsg_t msg = {pages + page, 0, 0, 139, 4, 0};
    EXPECT_THAT(dump_without_time(msg),
                testing::HasSubstr("[raw msg header]\n???????? ???????? ???????? ???????? \n"
                                   "[raw msg body]\n00000000 \n"));
    munmap(pages, 2 * page);
}

TEST(ClientAssertDeathTest, BothMacrosPrintTheConditionAsItIsWritten) {
    const void *const pointer = nullptr;
    EXPECT_EXIT(ZD_ASSERT("unit", pointer != NULL), testing::KilledBySignal(SIGABRT),
                "^unit:[0-9]+: Assertion fail with condition 'pointer != NULL' ");
    EXPECT_EXIT(ZD_ASSERT_AT("unit", 77, pointer != NULL), testing::KilledBySignal(SIGABRT),
                "^unit:77: Assertion fail with condition 'pointer != NULL' ");
}

TEST(ClientAssertDeathTest, BothCommandsAbort) {
    EXPECT_EXIT(zd_thr_assert_cmd(), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(zd_svr_assert_cmd(), testing::KilledBySignal(SIGABRT), "");
}

TEST(ClientAssert, ConditionThatHoldsReportsNothing) {
    EXPECT_EQ(stderr_of([] { ZD_ASSERT("unit", stderr != NULL); }), "");
}

} // namespace
