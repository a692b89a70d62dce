#include "death.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using zdepcall::DeathEvidence;
using zdepcall::describe_death;

DeathEvidence within_a_call(int wait_status) {
    DeathEvidence evidence;
    evidence.wait_status = wait_status;
    evidence.was_ready = true;
    evidence.was_calling = true;
    return evidence;
}

constexpr int exited(int status) {
    return status << 8;
}

TEST(ZdepcallDeath, CrashThatTheAgentLogged) {
    DeathEvidence evidence = within_a_call(exited(1));
    evidence.log = "01-27 15:31:02.123456 [1][1][FAT] SEGMENTATION FAULT DETECTED\n";
    EXPECT_EQ(describe_death(evidence), "the routine crashed: the agent's log says SEGMENTATION "
                                        "FAULT DETECTED (exit status 1)");
}

TEST(ZdepcallDeath, CrashSignalsAreNamed) {
    EXPECT_EQ(describe_death(within_a_call(SIGFPE)),
              "the routine crashed: Floating point exception (SIGFPE)");
    EXPECT_THAT(describe_death(within_a_call(SIGSEGV)), HasSubstr("(SIGSEGV)"));
}

TEST(ZdepcallDeath, AbortWithoutAReportIsTheRoutines) {
    EXPECT_EQ(describe_death(within_a_call(SIGABRT)), "the routine aborted (SIGABRT)");
}

TEST(ZdepcallDeath, AbortIsTheBrokenRedZoneWhenTheAllocatorSaysSo) {
    DeathEvidence evidence = within_a_call(SIGABRT);
    evidence.output = "REDZONE CHECK ERROR. (malloc from:filename=epa_dl_call, line=1, size=9\n"
                      "alloc_dbginfo:390: Assertion fail with condition 'false' (PID=1)\n";
    EXPECT_THAT(describe_death(evidence), HasSubstr("broken red zone"));
}

TEST(ZdepcallDeath, AbortIsTheFailedAssertionWhenThereIsOne) {
    DeathEvidence evidence = within_a_call(SIGABRT);
    evidence.output = "hello\nzdmsg:12: Assertion fail with condition 'x' (PID=1)\nmore\n";
    EXPECT_EQ(describe_death(evidence), "an assertion of the agent failed: zdmsg:12: Assertion "
                                        "fail with condition 'x' (PID=1)");
}

TEST(ZdepcallDeath, AbortIsTheBrokenHeapWhenTheCLibrarySaysSo) {
    DeathEvidence evidence = within_a_call(SIGABRT);
    evidence.output = "free(): invalid pointer\n";
    EXPECT_THAT(describe_death(evidence), HasSubstr("broken heap"));
    EXPECT_THAT(describe_death(evidence), HasSubstr(": free(): invalid pointer"));
}

TEST(ZdepcallDeath, OtherSignalsKilledTheAgent) {
    EXPECT_EQ(describe_death(within_a_call(SIGKILL)), "the agent was killed by a signal (SIGKILL)");
}

TEST(ZdepcallDeath, ExitWithinACallIsTheRoutines) {
    EXPECT_EQ(describe_death(within_a_call(exited(7))),
              "the routine called exit: the agent ended with status 7 within the call");
    EXPECT_THAT(describe_death(within_a_call(exited(0))), HasSubstr("called exit"));
}

TEST(ZdepcallDeath, LostSocketIsToldFromExitByTheLog) {
    for (const char *line :
         {"[ERR] ERROR_IO occurred\n", "[ERR] ERROR_EPA_CONN_CLOSED occurred\n"}) {
        DeathEvidence evidence = within_a_call(exited(0));
        evidence.log = line;
        EXPECT_THAT(describe_death(evidence), HasSubstr("closed the agent's socket")) << line;
    }
}

TEST(ZdepcallDeath, SocketClosedByAnAgentThatRunsOn) {
    DeathEvidence evidence = within_a_call(SIGKILL);
    evidence.kept_running = true;
    EXPECT_THAT(describe_death(evidence), HasSubstr("ran on"));
}

TEST(ZdepcallDeath, FatalExitPointsAtItsFile) {
    DeathEvidence evidence;
    evidence.wait_status = exited(1);
    evidence.error_file = "Cannot open log file\n";
    EXPECT_THAT(describe_death(evidence), HasSubstr("./extproc.err"));
}

TEST(ZdepcallDeath, BeforeTheFirstCallTheRoutineIsNotBlamed) {
    DeathEvidence evidence;
    evidence.wait_status = exited(1);
    EXPECT_EQ(describe_death(evidence), "the agent ended with status 1 before it was ready");
    evidence.wait_status = SIGABRT;
    EXPECT_THAT(describe_death(evidence), StartsWith("the agent"));
    EXPECT_THAT(describe_death(evidence), Not(HasSubstr("routine")));
}

} // namespace
