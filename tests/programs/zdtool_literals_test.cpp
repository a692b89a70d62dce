// zdtool literals, by running it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "program_run.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

ProgramRun literals(const std::string &statement, std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.begin(), {ZDTOOL_PROGRAM, "literals"});
    return run_program(arguments, statement);
}

TEST(ZdtoolLiterals, ShowsTheReplacedTextAndATable) {
    const ProgramRun run = literals("select 1, 'it''s', N'x' from t -- 5\n");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, "select :\"SYS_B_0\", :\"SYS_B_1\", :\"SYS_B_2\" from t -- 5\n"
                          "\n"
                          "ORDINAL  TYPE      OFFSET  NAME        TEXT\n"
                          "      1  number         7  :\"SYS_B_0\"  1\n"
                          "      2  char          10  :\"SYS_B_1\"  'it''s'\n"
                          "      3  nchar         19  :\"SYS_B_2\"  N'x'\n");
    EXPECT_THAT(run.complaints, IsEmpty());
}

TEST(ZdtoolLiterals, TextWithoutALastNewlineGetsOne) {
    EXPECT_THAT(literals("select 1").output, testing::StartsWith("select :\"SYS_B_0\"\n\nORDINAL"));
}

TEST(ZdtoolLiterals, StatementThatIsLeftAloneHasNoLiterals) {
    EXPECT_EQ(literals("create table t (a number default 5)").output,
              "create table t (a number default 5)\n\nno literals\n");
    EXPECT_EQ(literals("").output, "\n\nno literals\n");
}

TEST(ZdtoolLiterals, JsonHasEverything) {
    EXPECT_EQ(literals("select 1, 'it\"s'", {"--json"}).output,
              R"({"text":"select :\"SYS_B_0\", :\"SYS_B_1\"","prefix":":\"SYS_B_",)"
              R"("literals":[{"ordinal":1,"type":"number","offset":7,"diff":-9,)"
              R"("name":":\"SYS_B_0\"","text":"1"},{"ordinal":2,"type":"char","offset":10,)"
              R"("diff":-4,"name":":\"SYS_B_1\"","text":"'it\"s'"}]})"
              "\n");
    EXPECT_EQ(literals("commit", {"--json"}).output,
              "{\"text\":\"commit\",\"prefix\":null,\"literals\":[]}\n");
}

TEST(ZdtoolLiterals, ClientsGetOtherNames) {
    EXPECT_THAT(literals("select 1", {"--client"}).output, HasSubstr("select :\"B0\"\n"));
}

TEST(ZdtoolLiterals, CharacterSetSaysWhatIsAWord) {
    const std::string stmt = "select \xB1"
                             "1";
    EXPECT_THAT(literals(stmt).output, HasSubstr("no literals"));
    EXPECT_THAT(literals(stmt, {"--charset", "sjis"}).output, Not(HasSubstr("no literals")));
    EXPECT_THAT(literals(stmt, {"--charset=MSWIN932_TILDE"}).output, Not(HasSubstr("no literals")));
}

TEST(ZdtoolLiterals, BigOnlyLeavesShortLiterals) {
    const std::string big = "'" + std::string(65534, 'x') + "'";
    const ProgramRun run = literals("select 1, " + big, {"--big-only"});
    EXPECT_THAT(run.output, testing::StartsWith("select 1, :\"SYS_B_0\"\n"));
}

TEST(ZdtoolLiterals, LiteralThatCouldDisturbATerminalIsEscapedInTheTable) {
    EXPECT_THAT(literals("select '\x1B[2J\n'").output, HasSubstr("'\\x1b[2J\\n'"));
}

TEST(ZdtoolLiterals, ReadsAFileOrStandardInput) {
    const std::string file = testing::TempDir() + "literals_statement.sql";
    std::ofstream(file) << "select 42";
    const ProgramRun from_file = literals("", {file});
    EXPECT_EQ(from_file.status, 0);
    EXPECT_EQ(from_file.output, literals("select 42", {"-"}).output);
    EXPECT_THAT(from_file.output, HasSubstr("42"));
    std::remove(file.c_str());
}

TEST(ZdtoolLiterals, FileThatCannotBeReadIsStatusTwo) {
    const ProgramRun run = literals("", {"/nonexistent/statement.sql"});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.complaints, "zdtool: /nonexistent/statement.sql: No such file or directory\n");
    EXPECT_THAT(run.output, IsEmpty());
    EXPECT_EQ(literals("", {"/"}).complaints, "zdtool: /: Is a directory\n");
}

TEST(ZdtoolLiterals, ZeroByteIsNoSql) {
    const ProgramRun run = literals(std::string("select \0 1", 10));
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.complaints,
              "zdtool: standard input: no SQL text: there is a zero byte at offset 7\n");
}

TEST(ZdtoolLiterals, StatementThatLeavesNoNamesIsAFault) {
    std::string stmt = "select 1, 2";
    for (int letters = 1; letters <= 29; letters++)
        stmt += ", :" + std::string(static_cast<size_t>(letters), 'B') + "22";
    for (char letter = 'A'; letter <= 'Z'; letter++)
        stmt += std::string(", :") + (letter == 'B' ? 'A' : letter) + std::string(3, letter) + "1";
    const ProgramRun run = literals(stmt, {"--client"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.complaints, "zdtool: no bind names are left that the statement does not use "
                              "(ERROR_LC_PREFIX_GEN_FAILED)\n");
    EXPECT_EQ(literals(stmt).status, 0);
}

TEST(ZdtoolLiterals, WrongUsageIsSaid) {
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{"--charset", "latin9"}, {"--wrong"}, {"a", "b"}}) {
        const ProgramRun run = literals("", arguments);
        EXPECT_EQ(run.status, 2) << arguments[0];
        EXPECT_THAT(run.complaints, HasSubstr("zdtool literals --help")) << arguments[0];
    }
}

TEST(ZdtoolLiterals, HelpSaysHowItIsUsed) {
    const ProgramRun run = literals("", {"--help"});
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.output, testing::StartsWith("Usage: zdtool literals [OPTION...] [FILE]\n"));
}

} // namespace
