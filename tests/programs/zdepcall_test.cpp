// zdepcall by running it: with the agent host, and with the direct form where that differs.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "program_run.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

namespace fs = std::filesystem;

// Runs in a folder of its own, which is also where temporary folders are made.
class Zdepcall : public testing::Test {
  protected:
    void SetUp() override {
        folder_ = testing::TempDir() + "zdepcall.XXXXXX";
        ASSERT_NE(mkdtemp(folder_.data()), nullptr);
    }
    void TearDown() override { fs::remove_all(folder_); }

    ProgramRun run(std::vector<std::string> arguments, const std::string &input = "") {
        arguments.insert(arguments.begin(), ZDEPCALL_PROGRAM);
        return run_program(arguments, input, [this] {
            if (chdir(folder_.c_str()) != 0)
                _exit(126);
            setenv("TMPDIR", folder_.c_str(), 1);
        });
    }

    // One call; what it prints on success.
    std::string printed(std::vector<std::string> arguments) {
        const ProgramRun result = run(std::move(arguments));
        EXPECT_EQ(result.status, 0) << result.complaints;
        EXPECT_THAT(result.complaints, IsEmpty());
        return result.output;
    }

    bool folder_is_empty() { return fs::is_empty(folder_); }

    std::string folder_;
};

// The same through the agent host and through the direct form.
class ZdepcallForms : public Zdepcall, public testing::WithParamInterface<bool> {
  protected:
    ProgramRun call(std::vector<std::string> arguments, const std::string &input = "") {
        if (GetParam())
            arguments.insert(arguments.begin(), "--in-process");
        return run(std::move(arguments), input);
    }
    std::string printed(std::vector<std::string> arguments) {
        const ProgramRun result = call(std::move(arguments));
        EXPECT_EQ(result.status, 0) << result.complaints;
        EXPECT_THAT(result.complaints, IsEmpty());
        return result.output;
    }
};

INSTANTIATE_TEST_SUITE_P(Both, ZdepcallForms, testing::Bool(),
                         [](const testing::TestParamInfo<bool> &given) {
                             return given.param ? "DirectForm" : "AgentHost";
                         });

TEST_P(ZdepcallForms, NumbersGoByValue) {
    EXPECT_EQ(printed({NUMBERS, "zdex_add", "int=2", "int=-40", "--returns", "int"}),
              "return: -38\n");
    EXPECT_EQ(
        printed({NUMBERS, "zdex_multiply", "long=3000000000", "long=-3", "--returns", "long"}),
        "return: -9000000000\n");
    EXPECT_EQ(printed({NUMBERS, "zdex_mean", "double=1", "double=2", "--returns", "double"}),
              "return: 1.5\n");
    EXPECT_EQ(printed({NUMBERS, "zdex_half", "float=0.5", "--returns", "float"}), "return: 0.25\n");
}

TEST_P(ZdepcallForms, ArgumentsBeyondTheRegistersGoOnTheStack) {
    EXPECT_EQ(
        printed({NUMBERS, "zdex_sum8", "int=1", "long=20", "short=300", "int=4000", "uint=50000",
                 "char=60", "int=700000", "long=8000000000", "--returns", "long"}),
        "return: 8000754381\n");
    EXPECT_EQ(printed({NUMBERS, "zdex_polynomial", "double=2", "double=1", "double=1", "double=1",
                       "double=1", "double=1", "double=1", "double=1", "double=1", "double=1",
                       "--returns", "double"}),
              "return: 511\n");
    EXPECT_EQ(
        printed({NUMBERS, "zdex_pick", "double=0", "double=1", "double=2", "double=3", "double=4",
                 "double=5", "double=6", "double=7", "int=8", "double=8.5", "--returns", "double"}),
        "return: 8.5\n");
}

TEST_P(ZdepcallForms, NumbersGoByReferenceInBothDirections) {
    EXPECT_EQ(printed({NUMBERS, "zdex_divide", "int=17", "int=5", "out:int", "out:&int"}),
              "argument 3: 3\nargument 4: 2\n");
    EXPECT_EQ(printed({NUMBERS, "zdex_increment", "inout:long=41"}), "argument 1: 42\n");
}

TEST_P(ZdepcallForms, TextGoesInOutAndBoth) {
    EXPECT_EQ(printed({TEXT, "zdex_word_count", "string=three short words", "--returns", "int"}),
              "return: 3\n");
    EXPECT_EQ(printed({TEXT, "zdex_greet", "string=World", "out:string(40)", "int=40"}),
              "argument 2: \"Hello, World!\"\n");
    EXPECT_EQ(printed({TEXT, "zdex_upper", "inout:string(10)=abc"}), "argument 1: \"ABC\"\n");
    EXPECT_EQ(printed({TEXT, "zdex_upper", "inout:string(3)=abc"}), "argument 1: \"ABC\"\n");
    EXPECT_EQ(printed({TEXT, "zdex_weekday", "int=3", "--returns", "string"}),
              "return: \"Wednesday\"\n");
    EXPECT_EQ(printed({TEXT, "zdex_weekday", "int=8", "--returns", "string"}), "return: \"\"\n");
}

TEST_P(ZdepcallForms, BytesAndNumbersGoByReference) {
    EXPECT_EQ(printed({BYTES, "zdex_checksum", "raw=616263", "uint=3", "--returns", "uint"}),
              "return: 19495\n");
    EXPECT_EQ(printed({BYTES, "zdex_reverse", "inout:raw(8)=010203", "uint=3"}),
              "argument 1: 0302010000000000\n");
    EXPECT_EQ(printed({BYTES, "zdex_pattern", "int=171", "--returns", "raw"}),
              "return: abababababababab and 1992 zero bytes\n");
    EXPECT_EQ(printed({BYTES, "zdex_number_length", "zdnumber=03c10203", "--returns", "int"}),
              "return: 3\n");
    EXPECT_EQ(printed({BYTES, "zdex_number_copy", "zdnumber=03c10203", "--returns", "zdnumber"}),
              "return: 03c10203\n");
}

TEST_P(ZdepcallForms, ContextGivesMemoryForTheCall) {
    EXPECT_EQ(
        printed({CONTEXT, "zdex_repeat", "string=ab", "int=3", "--context", "--returns", "string"}),
        "return: \"ababab\"\n");
}

TEST_P(ZdepcallForms, RaisedErrorIsPrintedWithAllThatIsKnownOfIt) {
    const ProgramRun result = call(
        {CONTEXT, "zdex_withdraw", "double=10", "double=25.5", "--context", "--returns", "double"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_THAT(result.complaints,
                MatchesRegex("zdepcall: -20001 ERROR_PSM_USER_RAISE_APPLICATION \\[ERRPS\\]: "
                             "cannot withdraw 25.50 from 10.00. \\(epa_usr_util:[0-9]+ "
                             "SQLExtProcDirectRaiseErrorWithMsg\\)\n"));
}

TEST_P(ZdepcallForms, CxxRoutineReturnsAndRaises) {
    EXPECT_EQ(
        printed({STATS, "zdex_median", "string=3 1 2 10", "--context", "--returns", "double"}),
        "return: 2.5\n");
    const ProgramRun result =
        call({STATS, "zdex_median", "string=3 x", "--context", "--returns", "double"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.complaints, HasSubstr("-20002"));
    EXPECT_THAT(result.complaints, HasSubstr("'x' is not a number"));
}

TEST_P(ZdepcallForms, CallWithoutOutputsPrintsNothing) {
    EXPECT_EQ(printed({NUMBERS, "zdex_add", "int=1", "int=2"}), "");
}

TEST_P(ZdepcallForms, MissingFunctionIsTheAgentsError) {
    const ProgramRun result = call({NUMBERS, "no_such_function"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.complaints,
                AllOf(StartsWith("zdepcall: -140009 ERROR_EPA_FUNCTION_OPEN_FAILED [ERREP]: "
                                 "Function ('no_such_function') call failed - "),
                      HasSubstr("(epa_dl_call:605 ")));
}

TEST_P(ZdepcallForms, MissingLibraryIsTheAgentsError) {
    const ProgramRun result = call({"/no/such/library.so", "f"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.complaints,
                AllOf(StartsWith("zdepcall: -140004 ERROR_EPA_LIBRARY_OPEN_FAILED [ERREP]: "
                                 "Failed to open library ('/no/such/library.so') - "),
                      HasSubstr("(epa_dl_call:1092 ")));
}

TEST_P(ZdepcallForms, TypeThatTheAgentRefusesIsItsError) {
    const ProgramRun result = call({NUMBERS, "zdex_add", "int/NUMBER=1", "int=2"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.complaints, HasSubstr("-140014 ERROR_EPA_NOT_SUPPORTED_SQL_TYPE"));
}

TEST_P(ZdepcallForms, TemporaryHomeIsRemoved) {
    printed({NUMBERS, "zdex_add", "int=1", "int=2"});
    EXPECT_TRUE(folder_is_empty());
    call({NUMBERS, "no_such_function"});
    EXPECT_TRUE(folder_is_empty());
}

TEST_P(ZdepcallForms, WhatTheRoutinePrintsGoesToStandardError) {
    const ProgramRun result = call({HOSTILE, "hostile_print", "--returns", "int"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "return: 1\n");
    EXPECT_EQ(result.complaints, "printed to standard output\nprinted to standard error\n");
}

TEST_P(ZdepcallForms, RepetitionPrintsTheFirstReplyAndTheTimes) {
    EXPECT_THAT(
        printed({NUMBERS, "zdex_add", "int=1", "int=2", "--returns", "int", "--repeat", "50"}),
        MatchesRegex("return: 3\n50 calls: p50 [0-9.]+ us, p99 [0-9.]+ us, max [0-9.]+ us, "
                     "[0-9]+ calls/s\n"));
}

TEST_P(ZdepcallForms, RepetitionEndsAtTheFirstError) {
    const ProgramRun result = call({"/no/such.so", "f", "--repeat", "50"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, StartsWith("1 calls:"));
}

TEST_P(ZdepcallForms, ScriptMakesItsCallsThroughOneAgent) {
    const ProgramRun result = call(
        {"--script", "-"}, "# sums\n" NUMBERS " zdex_add int=1 int=2 --returns int\n\n" NUMBERS
                           " no_such_function\n" TEXT " zdex_upper 'inout:string(9)=a b'\n" TEXT
                           " zdex_word_count string=\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output,
                MatchesRegex("return: 3\nerror: -140009 .*\nargument 1: \"A B\"\ndone\n"));
    EXPECT_THAT(result.complaints, IsEmpty());
}

TEST_F(Zdepcall, ScriptFileEchoesItsLines) {
    std::ofstream(folder_ + "/calls") << "# sums\n" NUMBERS " zdex_add int=1 int=2 --returns int";
    const ProgramRun result = run({"--echo", "--script", "calls"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, MatchesRegex("# agent: process [0-9]+, ready after [0-9.]+ ms\n"
                                            "# sums\n[^\n]* zdex_add int=1 int=2 --returns int\n"
                                            "  return: 3\n"));
}

TEST_F(Zdepcall, WrongLineOfAScriptIsNamedByItsPlace) {
    std::ofstream(folder_ + "/calls") << NUMBERS " zdex_add int=1 int=2\n\n" NUMBERS " f int=x\n";
    const ProgramRun result = run({"--script", "calls"});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.complaints,
                StartsWith("zdepcall: calls:3: int=x: 'x' is not a whole number"));
    EXPECT_THAT(run({"--script", "-"}, "lib 'x\n").complaints,
                StartsWith("zdepcall: standard input:1: a quotation is not closed"));
}

TEST_F(Zdepcall, MissingScriptIsWrongUsage) {
    const ProgramRun result = run({"--script", "no-such-file"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.complaints, "zdepcall: no-such-file: No such file or directory\n");
}

TEST_F(Zdepcall, LibraryInTheCurrentFolderIsFound) {
    fs::copy(NUMBERS, folder_ + "/mine.so");
    EXPECT_EQ(printed({"mine.so", "zdex_add", "int=1", "int=2", "--returns", "int"}),
              "return: 3\n");
}

TEST_F(Zdepcall, JsonHasTheReply) {
    EXPECT_THAT(
        printed({"--json", TEXT, "zdex_greet", "string=\xc3\x89va", "out:string(40)", "int=40"}),
        MatchesRegex("\\{\"library\":\"[^\"]+\",\"function\":\"zdex_greet\",\"status\":\"ok\","
                     "\"outputs\":\\[\\{\"argument\":2,\"type\":\"string\",\"value\":\"Hello, "
                     "\xc3\x89va!\",\"hex\":\"48656c6c6f2c20c389766121\"\\}\\],\"errors\":\\[\\],"
                     "\"dbms_output\":\"\",\"microseconds\":[0-9.]+\\}\n"));
    EXPECT_THAT(printed({"--json", NUMBERS, "zdex_add", "int=1", "int=2", "--returns", "int"}),
                HasSubstr("\"return\":{\"type\":\"int\",\"value\":3,\"hex\":\"03000000\"}"));
}

TEST_F(Zdepcall, JsonHasTheErrorsAndTheDeath) {
    const ProgramRun error = run({"--json", NUMBERS, "no_such_function"});
    EXPECT_EQ(error.status, 1);
    EXPECT_THAT(error.output,
                AllOf(HasSubstr("\"status\":\"error\""), HasSubstr("\"code\":-140009,"),
                      HasSubstr("\"name\":\"ERROR_EPA_FUNCTION_OPEN_FAILED\""),
                      HasSubstr("\"sqlstate\":\"ERREP\""), HasSubstr("\"line\":605,")));
    const ProgramRun death = run({"--json", HOSTILE, "hostile_abort"});
    EXPECT_EQ(death.status, 3);
    EXPECT_THAT(death.output, AllOf(HasSubstr("\"status\":\"died\""),
                                    HasSubstr("\"reason\":\"the routine aborted (SIGABRT)\"")));
}

TEST_F(Zdepcall, TraceShowsBothMessagesFieldByField) {
    const ProgramRun result =
        run({"--trace", "/l.so", "f", "int=5", "out:string(9)", "--returns", "int", "--context"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(
        result.complaints,
        AllOf(StartsWith("request, 84 bytes\n"
                         "  0000  0000008b                          type = 139 "
                         "ZDMSG_EXTPROC_EXECUTE\n"
                         "  0004  00000044                          body_size = 68\n"
                         "  0008  0000000000000000                  tsn = 0\n"
                         "  0010  000000052f6c2e736f000000          library_path = \"/l.so\"\n"),
              HasSubstr("property: with context\n"),
              HasSubstr("return_flag: by value, out, PLS_INT, int\n"),
              HasSubstr("param 2 flag: by reference, out, VARCHAR, string\n"),
              HasSubstr("\nreply, "), HasSubstr("type = 140 ZDMSG_EXTPROC_EXECUTE_REPLY\n"),
              HasSubstr("code = -140004 ERROR_EPA_LIBRARY_OPEN_FAILED\n")));
}

TEST_F(Zdepcall, TimeIsPrintedWhenAskedFor) {
    EXPECT_THAT(printed({"--time", NUMBERS, "zdex_add", "int=1", "int=2", "--returns", "int"}),
                MatchesRegex("return: 3\ntime: [0-9.]+ us\n"));
}

TEST_F(Zdepcall, HomeThatIsNamedIsUsedAndKept) {
    fs::create_directories(folder_ + "/agent/client/zdepa");
    std::ofstream(folder_ + "/agent/client/zdepa/zdepa.cfg") << "LOG_LVL=3\n";
    printed({"--home", "agent", NUMBERS, "zdex_add", "int=1", "int=2"});
    size_t logs = 0;
    for (const auto &entry : fs::directory_iterator(folder_ + "/agent/client/zdepa/backup")) {
        std::ifstream file(entry.path());
        const std::string log{std::istreambuf_iterator<char>(file), {}};
        EXPECT_THAT(log, HasSubstr("funcname : zdex_add"));
        logs++;
    }
    EXPECT_EQ(logs, 1U);
}

TEST_F(Zdepcall, HelpAndVersionGoToStandardOutput) {
    EXPECT_THAT(printed({"--help"}), StartsWith("Usage: zdepcall"));
    EXPECT_THAT(printed({"--version"}), MatchesRegex("zdepcall 1\\.[^\n]+\n"));
}

TEST_F(Zdepcall, WrongUsageHasStatusTwo) {
    const ProgramRun result = run({NUMBERS, "zdex_add", "int=99999999999", "int=1"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.complaints, "zdepcall: int=99999999999: out of range for int (-2147483648 to "
                                 "2147483647)\n");
    EXPECT_EQ(run({}).status, 2);
}

TEST_F(Zdepcall, AgentThatCannotBeRunIsWrongUsage) {
    const ProgramRun result = run({"--agent", "/no/such/agent", NUMBERS, "zdex_add"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.complaints, "zdepcall: /no/such/agent: cannot be run: No such file or "
                                 "directory (name the agent host with --agent)\n");
    EXPECT_TRUE(folder_is_empty());
}

TEST_F(Zdepcall, RequestTooLargeForTheAgentIsWrongUsage) {
    const std::string value(2 * 4096, '0');
    const ProgramRun result = run({BYTES, "zdex_checksum", "raw=" + value, "uint=1"});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.complaints, HasSubstr("the agent accepts 4096"));
}

TEST_F(Zdepcall, RequestTooLargeForTheAgentGoesThroughTheDirectForm) {
    const std::string value(2 * 10'000, '0');
    EXPECT_EQ(printed({"--in-process", BYTES, "zdex_checksum", "raw=" + value, "uint=10000",
                       "--returns", "uint"}),
              "return: 0\n");
}

TEST_F(Zdepcall, AgentThatEndsBeforeItIsReadyHasDied) {
    const ProgramRun result = run({"--agent", "/bin/false", NUMBERS, "zdex_add"});
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.complaints,
                StartsWith("zdepcall: the agent ended with status 1 before it was ready\n"));
}

TEST_F(Zdepcall, AgentThatCannotOpenItsLogSaysSoInItsErrorFile) {
    fs::create_directories(folder_ + "/agent/client/zdepa");
    std::ofstream(folder_ + "/agent/client/zdepa/zdepa.cfg") << "LOG_DIR=/dev/null/logs\n";
    const ProgramRun result = run({"--home", "agent", NUMBERS, "zdex_add"});
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.complaints,
                AllOf(HasSubstr("said why in ./extproc.err"), HasSubstr("Cannot open log file")));
}

struct Death {
    const char *name;
    std::vector<std::string> call;
    const char *words;
};

void PrintTo(const Death &death, std::ostream *stream) {
    *stream << death.name;
}

class ZdepcallDeath : public Zdepcall, public testing::WithParamInterface<Death> {};

TEST_P(ZdepcallDeath, IsToldInWordsWithStatusThree) {
    std::vector<std::string> arguments = GetParam().call;
    arguments.insert(arguments.begin(), HOSTILE);
    const ProgramRun result = run(arguments);
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_THAT(result.complaints, HasSubstr(std::string("zdepcall: ") + GetParam().words));
    EXPECT_THAT(result.complaints, HasSubstr("the agent's home is kept: "));
    EXPECT_THAT(result.complaints, HasSubstr("epa_worker_init succeeded")); // the log
    EXPECT_FALSE(folder_is_empty());
}

INSTANTIATE_TEST_SUITE_P(
    Agent, ZdepcallDeath,
    testing::Values(
        Death{"Crash",
              {"hostile_crash"},
              "the routine crashed: the agent's log says SEGMENTATION FAULT DETECTED (exit status "
              "1)\n"},
        Death{"Abort", {"hostile_abort"}, "the routine aborted (SIGABRT)\n"},
        Death{"Exit",
              {"hostile_exit", "int=7"},
              "the routine called exit: the agent ended with status 7 within the call\n"},
        Death{"ExitInOrder",
              {"hostile_exit", "int=0"},
              "the routine called exit: the agent ended with status 0 within the call\n"},
        Death{"Kill", {"hostile_signal", "int=9"}, "the agent was killed by a signal (SIGKILL)\n"},
        Death{"RedZone",
              {"hostile_red_zone", "--context"},
              "the routine wrote beyond its memory: the agent's allocator found a broken red zone "
              "and aborted\n"},
#ifndef ZDEPL_SANITIZED // a sanitizer has a heap of its own and takes some signals itself
        Death{"FloatingPoint",
              {"hostile_signal", "int=8"},
              "the routine crashed: Floating point exception (SIGFPE)\n"},
        Death{"Heap",
              {"hostile_heap"},
              "the routine wrote beyond its memory: the C library found a broken heap and aborted: "
              "free(): invalid"},
#endif
        Death{"ClosedSocket",
              {"hostile_close", "--context"},
              "the routine closed the agent's socket, and the agent ended with status 0\n"},
        Death{"ClosedSocketAndRunsOn",
              {"hostile_close_and_stay", "--context"},
              "the routine closed the agent's socket and ran on; it has been killed\n"},
        Death{"Timeout",
              {"hostile_loop", "--timeout", "0.2"},
              "the agent was killed: it did not answer in time\n"},
        Death{"ReplyOfAnotherType",
              {"hostile_reply", "--context", "uint=139", "uint=64"},
              "the agent was killed: its reply cannot be read: a message of type 139"},
        Death{"ReplyTooLong",
              {"hostile_reply", "--context", "uint=140", "uint=0xfffffff0"},
              "the agent was killed: it announced a reply of 4294967296 bytes\n"},
        Death{"ReplyTooShort",
              {"hostile_reply", "--context", "uint=140", "uint=8"},
              "the agent was killed: it sent 56 bytes after its reply\n"},
        Death{"ReplyTruncated",
              {"hostile_reply", "--context", "uint=140", "uint=64"},
              "the agent was killed: its reply cannot be read: 44 bytes after its last field\n"}),
    [](const testing::TestParamInfo<Death> &given) { return given.param.name; });

TEST_F(Zdepcall, ReportOfTheAllocatorIsPassedOn) {
    EXPECT_THAT(run({HOSTILE, "hostile_red_zone", "--context"}).complaints,
                HasSubstr("REDZONE CHECK ERROR. (malloc from:filename=epa_usr_util, line="));
}

TEST_F(Zdepcall, DirectFormTellsDeathsInWordsToo) {
    const ProgramRun crash = run({"--in-process", HOSTILE, "hostile_crash"});
    EXPECT_EQ(crash.status, 3);
#ifndef ZDEPL_SANITIZED // which takes the signal itself
    EXPECT_THAT(crash.complaints, HasSubstr("the routine crashed: Segmentation fault (SIGSEGV)"));
#endif
    const ProgramRun exit_call = run({"--in-process", HOSTILE, "hostile_exit", "int=7"});
    EXPECT_EQ(exit_call.status, 3);
    EXPECT_THAT(exit_call.complaints,
                HasSubstr("the routine called exit: the agent ended with status 7"));
}

TEST_F(Zdepcall, DirectFormFindsOutputsThatWereOverrun) {
    EXPECT_THAT(printed({HOSTILE, "hostile_overrun", "out:string(99)", "int=98"}),
                StartsWith("argument 1: \"yyy"));
    const ProgramRun result =
        run({"--in-process", HOSTILE, "hostile_overrun", "out:string(99)", "int=99"});
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.complaints,
                AllOf(HasSubstr("REDZONE CHECK ERROR"), HasSubstr("found a broken red zone")));
}

TEST_F(Zdepcall, ScriptEndsWhenTheAgentDies) {
    const ProgramRun result =
        run({"--script", "-"}, NUMBERS " zdex_add int=1 int=2 --returns int\n" HOSTILE
                                       " hostile_abort\n" NUMBERS " zdex_add int=1 int=2\n");
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.output, "return: 3\n");
}

TEST_F(Zdepcall, InterruptionLeavesNothingBehind) {
    const ProgramRun result = run_program(
        {"/bin/sh", "-c", "\"$1\" \"$2\" hostile_loop & sleep 0.5; kill -TERM $!; wait $!; echo $?",
         "sh", ZDEPCALL_PROGRAM, HOSTILE},
        "", [this] { setenv("TMPDIR", folder_.c_str(), 1); });
    EXPECT_EQ(result.output, "143\n");
    EXPECT_TRUE(folder_is_empty());
}

TEST_F(Zdepcall, OutputThatCannotBeWrittenIsAnError) {
    const ProgramRun result = run_program({ZDEPCALL_PROGRAM, "--help"}, "",
                                          [] { dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO); });
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.complaints, HasSubstr("No space left on device"));
}

} // namespace
