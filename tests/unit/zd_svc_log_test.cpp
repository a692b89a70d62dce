#include "common/zd_svc_log.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <gtest/gtest.h>

#include <string>

#include "common/ec.h"

namespace {

template <class Body>
std::string stdout_of(Body body) {
    testing::internal::CaptureStdout();
    body();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

template <class Body>
std::string stderr_of(Body body) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

TEST(PrintEvent, WritesTheCatalogueTextToStandardOutput) {
    EXPECT_EQ(stdout_of([] { print_event(STDOUT_COMMON_PRINT_STRING_1, "/a/b"); }),
              "Create directory fail cascade: /a/b\n");
}

TEST(PrintEvent, AddsNoLineEndOfItsOwn) {
    EXPECT_EQ(stdout_of([] { print_event(STDOUT_CLI_GETRLIMIT_FAIL); }), " getrlimit failed.");
}

TEST(PrintEvent, ArgumentsGoWhereTheTextPlacesThem) {
    EXPECT_EQ(stdout_of([] { print_event(ERROR_SYSCALL_MKDIR, "why", "where"); }),
              " mkdir('where') failed -- why.   ");
    EXPECT_EQ(stdout_of([] { print_event(STDOUT_COMMON_PRINT_STRING_2, "/a", 13, "denied"); }),
              "Failure to create directory: /a (13:denied)\n");
}

TEST(PrintEvent, TextIsCutAtSevenHundredAndElevenBytes) {
    const std::string path(1000, 'p');
    const std::string text =
        stdout_of([&] { print_event(STDOUT_COMMON_PRINT_STRING_1, path.c_str()); });
    EXPECT_EQ(text, ("Create directory fail cascade: " + path).substr(0, 711));
}

TEST(PerrorEvent, SystemErrorTextFollowsOnStandardError) {
    EXPECT_EQ(stderr_of([] {
                  errno = EACCES;
                  perror_event(STDOUT_COMMON_MAKE_A_DUMP_FILE_FAIL, "x.dmp");
              }),
              " Failure to create dump file: x.dmp: Permission denied\n");
}

TEST(PrintErrorAndExitDeathTest, PrintsAndEndsWithStatusOne) {
    // The text goes to standard output, which the death test does not see: send it to the other.
    EXPECT_EXIT(
        {
            dup2(fileno(stderr), fileno(stdout));
            print_error_and_exit(STDOUT_COMMON_PRINT_STRING_1, "/a");
        },
        testing::ExitedWithCode(1), "^Create directory fail cascade: /a\n$");
}

TEST(PrintEventDeathTest, UnknownCodeEndsTheProcess) {
    EXPECT_EXIT(print_event(-140007), testing::KilledBySignal(SIGABRT), "");
}

TEST(PrintEventDeathTest, RowWithoutTextIsAnAssertion) {
    EXPECT_EXIT(print_event(ZD_ERR_END_OF_INFO), testing::KilledBySignal(SIGABRT),
                "^zd_svc_log:[0-9]+: Assertion fail with condition 'desc != NULL' ");
}

} // namespace
