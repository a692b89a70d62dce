#include "client/common/client_assert.h"

#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "common/zdmsg/zdmsg_record.h"

// What the dump asks of the system, as the tests want it answered.
static const timeval *time_to_tell;
static bool is_reading_forbidden;

extern "C" int gettimeofday(timeval *time, void *) noexcept {
    if (time_to_tell != nullptr) {
        *time = *time_to_tell;
        return 0;
    }
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    *time = {now.tv_sec, now.tv_nsec / 1000};
    return 0;
}

extern "C" ssize_t process_vm_readv(pid_t pid, const iovec *local, unsigned long local_cnt,
                                    const iovec *remote, unsigned long remote_cnt,
                                    unsigned long flags) noexcept {
    if (is_reading_forbidden) {
        errno = EPERM;
        return -1;
    }
    return syscall(SYS_process_vm_readv, pid, local, local_cnt, remote, remote_cnt, flags);
}

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

TEST(ClientAssert, MessageDumpTellsTheLocalTime) {
    setenv("TZ", "HALF-05:30", 1);
    tzset();
    const timeval time = {1704161105, 42}; // 02:05:05 in Greenwich
    time_to_tell = &time;
    char bytes[ZDMSG_HDR_SIZE] = {};
    const zdmsg_t msg = {bytes + ZDMSG_HDR_SIZE, 0, 0, 139, 0, 0};
    EXPECT_THAT(
        stderr_of([&] { zd_asserted_zdmsg_dump(&msg); }),
        testing::StartsWith("[ZDMSG Dump]\ncreated at 2024/01/02 07:35:05.000042\ntype: 139\n"));
    time_to_tell = nullptr;
    unsetenv("TZ");
    tzset();
}

TEST(ClientAssert, MessageDumpBreaksTheBodyAfterThirtySixBytes) {
    char bytes[ZDMSG_HDR_SIZE + 40];
    for (size_t i = 0; i < sizeof bytes; i++)
        bytes[i] = static_cast<char>(i < ZDMSG_HDR_SIZE ? 0xA0 + i : i - ZDMSG_HDR_SIZE);
    zdmsg_t msg = {bytes + ZDMSG_HDR_SIZE, -1, 0, -140, 40, UINT64_MAX};
    EXPECT_EQ(dump_without_time(msg),
              "[ZDMSG Dump]\n\n"
              "type: -140\nbodysize: 40\ntsn: 18446744073709551615\nstr_auto_free: -1\n"
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

TEST(ClientAssert, MessageDumpReadsTheHeaderAlsoWhereASandboxForbidsThePlainWay) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    char *const pages =
        static_cast<char *>(mmap(nullptr, 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pages, MAP_FAILED);
    ASSERT_EQ(mprotect(pages + page, page, PROT_READ | PROT_WRITE), 0);
    memset(pages + page, 0x5A, ZDMSG_HDR_SIZE);
    is_reading_forbidden = true;
    zdmsg_t msg = {pages + page + ZDMSG_HDR_SIZE, 0, 0, 139, 0, 0};
    EXPECT_THAT(dump_without_time(msg),
                testing::HasSubstr("[raw msg header]\n5A5A5A5A 5A5A5A5A 5A5A5A5A 5A5A5A5A \n"));
    msg.raw = pages + page;
    EXPECT_THAT(dump_without_time(msg),
                testing::HasSubstr("[raw msg header]\n???????? ???????? ???????? ???????? \n"));
    is_reading_forbidden = false;
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
