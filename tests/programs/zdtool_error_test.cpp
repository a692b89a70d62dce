// zdtool error, by running it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "program_run.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

ProgramRun zdtool(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), ZDTOOL_PROGRAM);
    return run_program(arguments);
}

constexpr char library_open_failed[] = "ERROR_EPA_LIBRARY_OPEN_FAILED (-140004)\n"
                                       "  class     error\n"
                                       "  SQLSTATE  ERREP\n"
                                       "  foreign   -\n"
                                       "  arguments ss\n"
                                       "  message   Failed to open library ('%1$s') - %2$s.\n"
                                       "  cause     Failed to open the library.\n"
                                       "  action    Check the error message.\n";

TEST(ZdtoolError, ShowsARowByItsCode) {
    const ProgramRun run = zdtool({"error", "-140004"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, library_open_failed);
    EXPECT_THAT(run.complaints, IsEmpty());
}

TEST(ZdtoolError, ShowsARowByItsNameInEitherCase) {
    EXPECT_EQ(zdtool({"error", "ERROR_EPA_LIBRARY_OPEN_FAILED"}).output, library_open_failed);
    EXPECT_EQ(zdtool({"error", "error_epa_library_open_failed"}).output, library_open_failed);
}

TEST(ZdtoolError, ShowsSeveralRowsApart) {
    EXPECT_THAT(zdtool({"error", "-140004", "0"}).output,
                AllOf(StartsWith(library_open_failed), HasSubstr("\n\nERROR_NONE (0)\n")));
}

TEST(ZdtoolError, TellsTheClassesApart) {
    EXPECT_THAT(zdtool({"error", "-640001"}).output,
                AllOf(HasSubstr("class     internal\n"), HasSubstr("cause     -\n")));
}

TEST(ZdtoolError, ACodeOfAUserProgramIsDescribedByTheRowOfAllOfThem) {
    const ProgramRun run = zdtool({"error", "-20123"});
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.output, StartsWith("ERROR_PSM_USER_RAISE_APPLICATION (-15116)\n"));
}

TEST(ZdtoolError, JsonHasTheTextsAsTheCatalogueHasThem) {
    const ProgramRun run = zdtool({"error", "--json", "-18007"});
    EXPECT_EQ(run.output,
              R"({"name":"ERROR_SYSCALL_MKDIR","code":-18007,"class":"error","sqlstate":"",)"
              R"("foreign":null,"arguments":"ss","message":" mkdir('%2$s') failed -- %1$s.   ",)"
              R"("cause":" Failed to create the directory.   ",)"
              R"("action":" Modify the permissions in the parent directory.;"})"
              "\n");
    EXPECT_THAT(zdtool({"error", "--json", "ERROR_IO"}).output, HasSubstr(R"("foreign":7499,)"));
}

TEST(ZdtoolError, GrepSearchesNamesAndTextsInEitherCase) {
    const ProgramRun by_text = zdtool({"error", "--grep", "CLASS PATH"});
    EXPECT_EQ(by_text.status, 0);
    EXPECT_THAT(by_text.output,
                HasSubstr("-140008 ERROR_EPA_INVALID_CLASS_NAME: Invalid class name ('%1$s').\n"));
    const ProgramRun by_name = zdtool({"error", "--grep", "epa_conn_closed", "--json"});
    EXPECT_THAT(by_name.output, HasSubstr(R"("code":-640001)"));
    EXPECT_THAT(by_name.output, Not(HasSubstr(R"("code":-140004)")));
}

TEST(ZdtoolError, GrepThatFindsNothingSaysSo) {
    const ProgramRun run = zdtool({"error", "--grep", "no such words"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.complaints, "zdtool: no error has the text \"no such words\"\n");
}

TEST(ZdtoolError, AnUnknownNameIsAnsweredWithTheNearest) {
    const ProgramRun run = zdtool({"error", "ERROR_EPA_FALL", "ERROR_EPA_FAIL"});
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.complaints, StartsWith("zdtool: ERROR_EPA_FALL: not in the error catalogue "
                                           "(nearest: ERROR_EPA_FAIL (-140006), "));
    EXPECT_THAT(run.output, StartsWith("ERROR_EPA_FAIL (-140006)\n"));
}

TEST(ZdtoolError, APartOfANameIsCloseToTheName) {
    EXPECT_THAT(zdtool({"error", "TOO_LONG_USER_FUNCTION_NAME"}).complaints,
                HasSubstr("(nearest: ERROR_EPA_TOO_LONG_USER_FUNCTION_NAME (-140016), "));
}

TEST(ZdtoolError, AnUnknownCodeIsAnsweredWithTheNearest) {
    const ProgramRun run = zdtool({"error", "-140007"});
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.complaints,
                AllOf(StartsWith("zdtool: -140007: not in the error catalogue (nearest: "),
                      HasSubstr("ERROR_EPA_FAIL (-140006)"),
                      HasSubstr("ERROR_EPA_INVALID_CLASS_NAME (-140008)")));
}

TEST(ZdtoolError, TheEndRowIsNoError) {
    EXPECT_EQ(zdtool({"error", "-2147483648"}).status, 1);
    EXPECT_EQ(zdtool({"error", "ZD_ERR_END_OF_INFO"}).status, 1);
    EXPECT_EQ(zdtool({"error", "99999999999999999999"}).status, 1);
}

TEST(ZdtoolError, WrongUsageIsStatusTwo) {
    for (const std::vector<std::string> &arguments : {std::vector<std::string>{},
                                                      {"nothing"},
                                                      {"error"},
                                                      {"error", "--wrong"},
                                                      {"error", "--grep"},
                                                      {"error", "--grep", "a", "b"}}) {
        const ProgramRun run = zdtool(arguments);
        EXPECT_EQ(run.status, 2);
        EXPECT_THAT(run.complaints, AllOf(StartsWith("zdtool: "), HasSubstr("(")));
        EXPECT_THAT(run.output, IsEmpty());
    }
}

TEST(ZdtoolError, HelpAndVersionGoToStandardOutput) {
    for (const std::vector<std::string> &arguments :
         {std::vector<std::string>{"--help"}, {"--version"}, {"error", "--help"}}) {
        const ProgramRun run = zdtool(arguments);
        EXPECT_EQ(run.status, 0);
        EXPECT_THAT(run.output, HasSubstr("zdtool "));
        EXPECT_THAT(run.complaints, IsEmpty());
    }
}

} // namespace
