#include "common/zd_err_info.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <ostream>
#include <string>

namespace {

struct Row {
    int code;
    const char *name, *argtypes, *desc, *cause, *action, *sqlstate;
    int foreign_number, type;
};

std::ostream &operator<<(std::ostream &out, const Row &row) {
    return out << row.name;
}

void expect_row(const zd_err_info_t *actual, const Row &expected) {
    ASSERT_NE(actual, nullptr) << expected.code;
    EXPECT_EQ(actual->code, expected.code);
    EXPECT_STREQ(actual->name, expected.name);
    EXPECT_STREQ(actual->argtypes, expected.argtypes);
    EXPECT_STREQ(actual->desc, expected.desc);
    EXPECT_STREQ(actual->cause, expected.cause);
    EXPECT_STREQ(actual->action, expected.action);
    EXPECT_STREQ(actual->sqlstate, expected.sqlstate);
    EXPECT_EQ(actual->ora_errcode, expected.foreign_number);
    EXPECT_EQ(actual->type, expected.type);
}

std::string assertion(const char *condition, int line) {
    return "^zd_err_info:" + std::to_string(line) + ": Assertion fail with condition '" +
           condition + "' ";
}

size_t last_row() {
    size_t last = 0;
    while (zd_err_info[last].type != ZD_ERR_TYPE_END)
        last++;
    return last;
}

// The rows that the library and the agent raise: the texts travel to the server.
class ErrInfoText : public testing::TestWithParam<Row> {};

TEST_P(ErrInfoText, IsWhatOtherSystemsCompare) {
    expect_row(zd_get_err_info(GetParam().code), GetParam());
}

constexpr Row kAgentRows[] = {
    {-140002, "ERROR_EPA_INVALID_PROTOCOL", "", " Invalid protocol.   ",
     " An invalid protocol was used.   ",
     " Make sure the protocol exists and that message transmission sequence is correct.;", "ERREP",
     -9999, 3},
    {-140003, "ERROR_EPA_SUCCESS", "", " Successful completion message.   ",
     " The procedure was invoked successfully.   ", " Check the result.;", "ERREP", -9999, 3},
    {-140004, "ERROR_EPA_LIBRARY_OPEN_FAILED", "ss", " Failed to open library ('%1$s') - %2$s.   ",
     " Failed to open the library.   ", " Check the error message.;", "ERREP", -9999, 3},
    {-140005, "ERROR_EPA_INVALID_FUNCTION_NAME", "s", " Invalid function name ('%1$s').   ",
     " The specified function does not exist in the library.   ", " Check the function name.   ",
     "ERREP", -9999, 3},
    {-140006, "ERROR_EPA_FAIL", "", " Unexpected external procedure failed.   ",
     " Failed to execute an external function.   ",
     " Check the cause of the failure and try again.;", "ERREP", -9999, 3},
    {-140008, "ERROR_EPA_INVALID_CLASS_NAME", "s", " Invalid class name ('%1$s').   ",
     " The specified class was not found at the class path.   ",
     " Verify that the class name and path are correct.;", "ERREP", -9999, 3},
    {-140009, "ERROR_EPA_FUNCTION_OPEN_FAILED", "ss", " Function ('%1$s') call failed - %2$s.   ",
     " Failed to call the function.   ", " Check the error message.;", "ERREP", -9999, 3},
    {-140010, "ERROR_EPA_INVALID_ERROR_CODE", "u", " Invalid error code - %1$u.   ",
     " The specified error code was not found.   ", " Check the error code.;", "ERREP", -9999, 3},
    {-140011, "ERROR_EPA_INVALID_ERROR_CODE2", "u", " Invalid error code - %1$u.   ",
     " The specified error code was not found.   ", " Check the error code.;", "ERREP", -9999, 3},
    {-140012, "ERROR_EPA_EXECUTE_FAILED_BY_USER", "s",
     " External procedure execution failure caused by user - %1$s.   ",
     " Failed to execute the external procedure.   ",
     " The error was caused by the user during the execution of the external procedure.;", "ERREP",
     -9999, 3},
    {-140013, "ERROR_EPA_LENGTH_OVERFLOW", "", " OUT parameter length overflow.   ",
     " The OUT parameter length exceeds the maximum allowed.   ", " Check the error message.;",
     "ERREP", -9999, 3},
    {-140014, "ERROR_EPA_NOT_SUPPORTED_SQL_TYPE", "",
     " Not supported SQL type in external procedure   ",
     " External Procedure does not support the SQL type.   ",
     " Check the SQL types supported by External Procedure.;", "ERREP", -9999, 3},
    {-140015, "ERROR_EPA_TOO_LONG_USER_LIBRARY_PATH", "",
     " The length of the user library path is too long.   ",
     " The length of the user library path is too long.   ", " Check the library path.;", "ERREP",
     -9999, 3},
    {-140016, "ERROR_EPA_TOO_LONG_USER_FUNCTION_NAME", "",
     " The length of the user function name is too long.   ",
     " The length of the user function name is too long.   ", " Check the function name.;", "ERREP",
     -9999, 3},
    {-640001, "ERROR_EPA_CONN_CLOSED", "", " Connection to DBMS server is closed.", "", "", "ERREP",
     -9999, 2},
    {-640007, "ERROR_EPA_INVALID_PARAMETER_INFO", "", " Parameter info is invalid", "", "", "ERREP",
     -9999, 2},
};

constexpr Row kOtherRows[] = {
    {0, "ERROR_NONE", "", "no error", "no error", "no error", "XXXXX", 0, 3},
    {-3003, "ERROR_OUT_OF_PHYSICAL_MEM", "", " Out of memory (system memory).   ",
     " The system memory is full.   ",
     " Increase the system memory space, or close other running programs.;", "82100", -9999, 3},
    {-3004, "ERROR_LOG_CANNOT_OPEN_FILE", "", " Unable to open log file.   ",
     " Cannot open the log file.   ", " Check the log file path and permissions.;", "ERRCO", -9999,
     3},
    {-15086, "ERROR_PSM_USER_DEFINED", "", " User-defined exception.   ",
     " A user-defined error.   ", " Check the user-defined error statement.;", "ERRPS", -9999, 3},
    {-15116, "ERROR_PSM_USER_RAISE_APPLICATION", "s", " %1$s.   ",
     " The user-defined error was not processed in an EXCEPTION clause but sent to the user.   ",
     " Verify that the actual cause of the error matches the cause listed above. If necessary, add "
     "an EXCEPTION clause.;",
     "ERRPS", -9999, 3},
    {-18007, "ERROR_SYSCALL_MKDIR", "ss", " mkdir('%2$s') failed -- %1$s.   ",
     " Failed to create the directory.   ", " Modify the permissions in the parent directory.;", "",
     -9999, 3},
    {-18017, "ERROR_IO", "", " Unknown I/O error.   ",
     " An I/O error of unknown cause occurred.   ", " Contact the technical support team.;", "",
     7499, 3},
    {-18019, "ERROR_IO_SOCKET_TIMEOUT", "", " Socket I/O timeout.   ",
     " Timeout during I/O operation.   ",
     " Check for any communication problems between the server and the client.;", "", -9999, 3},
    {-220004, "STDOUT_COMMON_MAKE_A_DUMP_FILE_FAIL", "s", " Failure to create dump file: %1$s", "",
     "", "", -9999, 3},
    {-220014, "STDOUT_COMMON_PRINT_STRING_1", "s", "Create directory fail cascade: %1$s\n", "", "",
     "", -9999, 3},
    {-220015, "STDOUT_COMMON_PRINT_STRING_2", "sds",
     "Failure to create directory: %1$s (%2$d:%3$s)\n", "", "", "", -9999, 3},
    {-300004, "STDOUT_CLI_GETRLIMIT_FAIL", "", " getrlimit failed.", "", "", "", -9999, 3},
};

std::string name_of(const testing::TestParamInfo<Row> &info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Agent, ErrInfoText, testing::ValuesIn(kAgentRows), name_of);
INSTANTIATE_TEST_SUITE_P(Other, ErrInfoText, testing::ValuesIn(kOtherRows), name_of);

TEST(ErrInfoTable, StartsWithNoErrorAndEndsWithTheEndRow) {
    EXPECT_EQ(zd_err_info[0].code, 0);
    expect_row(&zd_err_info[last_row()], {INT_MIN, "ZD_ERR_END_OF_INFO", "NULL", nullptr, nullptr,
                                          nullptr, "NOSQS", -9999, 0});
}

TEST(ErrInfoTable, HasARowForEveryErrorOfTheSystem) {
    size_t rows = 1; // the end row
    size_t without_sqlstate = 0;
    for (const zd_err_info_t *row = zd_err_info; row->code != ZD_ERR_END_OF_INFO; row++, rows++)
        without_sqlstate += row->sqlstate[0] == '\0';
    EXPECT_EQ(rows, 3237u);
    EXPECT_EQ(without_sqlstate, 742u);
}

TEST(ErrInfoTable, CodesDescendStrictly) {
    for (size_t i = 1; i <= last_row(); i++)
        EXPECT_GT(zd_err_info[i - 1].code, zd_err_info[i].code) << zd_err_info[i].name;
}

TEST(ErrInfoTable, EveryRowIsFoundUnderItsCode) {
    for (size_t i = 0; i <= last_row(); i++) {
        EXPECT_EQ(zd_get_err_info_for_zderr(zd_err_info[i].code), &zd_err_info[i])
            << zd_err_info[i].name;
        EXPECT_EQ(zd_err_info_exist(zd_err_info[i].code), 1) << zd_err_info[i].name;
    }
}

TEST(ErrInfoTable, EveryRowButTheLastIsFoundUnderItsName) {
    for (size_t i = 0; i < last_row(); i++)
        EXPECT_EQ(zd_get_err_info_by_name(zd_err_info[i].name), &zd_err_info[i])
            << zd_err_info[i].name;
}

TEST(ErrInfoTable, OnlyTheLastRowHasNoTexts) {
    for (size_t i = 0; i < last_row(); i++) {
        EXPECT_NE(zd_err_info[i].desc, nullptr) << zd_err_info[i].name;
        EXPECT_NE(zd_err_info[i].cause, nullptr) << zd_err_info[i].name;
        EXPECT_NE(zd_err_info[i].action, nullptr) << zd_err_info[i].name;
    }
}

TEST(ErrInfoTable, SqlstatesHaveFiveCharactersOrNone) {
    for (size_t i = 0; i <= last_row(); i++) {
        const size_t length = strnlen(zd_err_info[i].sqlstate, sizeof zd_err_info[i].sqlstate);
        EXPECT_TRUE(length == 0 || length == 5) << zd_err_info[i].name;
    }
}

TEST(ErrInfoTable, InternalRowsAreTheCodesFromFiveHundredThousand) {
    for (size_t i = 0; i < last_row(); i++)
        EXPECT_EQ(zd_err_info[i].type == 2, -zd_err_info[i].code >= 500000) << zd_err_info[i].name;
}

TEST(ErrInfoTable, FamiliesAreBoundedByEnumerators) {
    EXPECT_EQ(ERROR_CACHE_BASE, -1000);
    EXPECT_EQ(ERROR_CACHE_LAST, -1999);
    EXPECT_EQ(ERROR_EP_BASE, -140000);
    EXPECT_EQ(ERROR_EP_LAST, -140999);
    EXPECT_EQ(ERROR_LSNR_BASE, -13000);
    EXPECT_EQ(STDOUT_SSV_LAST, -420999);
    EXPECT_EQ(zd_err_info_exist(ERROR_EP_BASE), 0);
    EXPECT_EQ(zd_err_info_exist(ERROR_EP_LAST), 0);
}

TEST(ErrInfoLookup, InternalConditionsHaveTheirOwnCodes) {
    EXPECT_STREQ(zd_get_err_info(-501068)->name, "ERROR_CACHE_LOGNET_SHUTDOWN");
    EXPECT_STREQ(zd_get_err_info(-502128)->name, "ERROR_CLI_NEED_MORE_FETCH_NEXT");
    EXPECT_STREQ(zd_get_err_info(-503008)->name, "ERROR_OUT_OF_FIXED_MEM");
}

TEST(ErrInfoLookup, UserCodesAreDescribedByOneRow) {
    EXPECT_EQ(zd_get_err_info(-20123)->code, -15116);
    EXPECT_EQ(zd_get_err_info(-20000)->code, -15116);
    EXPECT_EQ(zd_get_err_info(-20999)->code, -15116);
    EXPECT_EQ(zd_get_err_info(-20001)->code, -15116) << "although -20001 has a row";
}

TEST(ErrInfoLookup, ExactLookupsKnowOnlyTheRowsThereAre) {
    EXPECT_EQ(zd_err_info_exist(-20123), 0);
    EXPECT_EQ(zd_get_err_info_for_zderr(-20123), nullptr);
    EXPECT_EQ(zd_get_err_info_for_zderr(-140007), nullptr);
    EXPECT_EQ(zd_get_err_info_for_zderr(1), nullptr);
    EXPECT_EQ(zd_get_err_info_for_zderr(INT_MAX), nullptr);
    EXPECT_EQ(zd_get_err_info_for_zderr(INT_MIN + 1), nullptr);
}

TEST(ErrInfoLookup, RowOfAUserCodeIsReachedExactlyOnly) {
    EXPECT_EQ(zd_err_info_exist(-20001), 1);
    ASSERT_NE(zd_get_err_info_for_zderr(-20001), nullptr);
    EXPECT_STREQ(zd_get_err_info_for_zderr(-20001)->desc, " Internal error thrown by the user.   ");
    EXPECT_EQ(zd_err_name_to_code("ERROR_PSMUSER"), -20001);
}

TEST(ErrInfoLookup, CopyForAUserErrorKeepsTheUsersCode) {
    zd_err_info_t copy;
    memset(&copy, 0x5a, sizeof copy);
    zd_get_usr_err_info(-20123, &copy);
    expect_row(&copy,
               {-20123, "ERROR_PSM_USER_RAISE_APPLICATION", "s", " %1$s.   ",
                " The user-defined error was not processed in an EXCEPTION clause but sent to the "
                "user.   ",
                " Verify that the actual cause of the error matches the cause listed above. If "
                "necessary, add an EXCEPTION clause.;",
                "ERRPS", -9999, 3});
}

TEST(ErrInfoLookup, CopyOfAnOrdinaryErrorIsItsRow) {
    zd_err_info_t copy;
    zd_get_usr_err_info(-140006, &copy);
    EXPECT_EQ(copy.code, -140006);
    EXPECT_STREQ(copy.name, "ERROR_EPA_FAIL");
}

TEST(ErrInfoLookup, FieldsOfACode) {
    EXPECT_STREQ(zd_err_code_to_desc(-140002), " Invalid protocol.   ");
    EXPECT_STREQ(zd_err_code_to_sqlstate(-140002), "ERREP");
    EXPECT_EQ(zd_err_code_to_ora_err_code(-18017), 7499);
    EXPECT_EQ(zd_err_code_to_ora_err_code(-140002), -9999);
    EXPECT_STREQ(zd_err_code_to_desc(-20500), " %1$s.   ");
}

TEST(ErrInfoLookup, NamesAreMatchedWholeAndInTheirCase) {
    EXPECT_EQ(zd_err_name_to_code("ERROR_EPA_FAIL"), -140006);
    EXPECT_EQ(zd_err_name_to_code("ERROR_NONE"), 0);
    EXPECT_EQ(zd_err_name_to_code("error_epa_fail"), INT_MIN);
    EXPECT_EQ(zd_err_name_to_code("ERROR_EPA_FAI"), INT_MIN);
    EXPECT_EQ(zd_err_name_to_code("ERROR_EPA_FAIL "), INT_MIN);
    EXPECT_EQ(zd_err_name_to_code(""), INT_MIN);
    EXPECT_EQ(zd_get_err_info_by_name("ERROR_EPA_FAI"), nullptr);
}

TEST(ErrInfoLookup, EndRowHasNoNameToSearchFor) {
    EXPECT_EQ(zd_err_name_to_code("ZD_ERR_END_OF_INFO"), INT_MIN);
    EXPECT_EQ(zd_get_err_info_by_name("ZD_ERR_END_OF_INFO"), nullptr);
}

TEST(ErrInfoDeathTest, UnknownCodeIsAnAssertion) {
    EXPECT_EXIT(zd_get_err_info(-140007), testing::KilledBySignal(SIGABRT),
                assertion("false", 102));
    EXPECT_EXIT(zd_err_code_to_desc(-140007), testing::KilledBySignal(SIGABRT),
                assertion("false", 102));
    EXPECT_EXIT(zd_err_code_to_sqlstate(-140007), testing::KilledBySignal(SIGABRT),
                assertion("false", 102));
    EXPECT_EXIT(zd_err_code_to_ora_err_code(1), testing::KilledBySignal(SIGABRT),
                assertion("false", 102));
}

TEST(ErrInfoDeathTest, CodesBesideTheUserRangeAreNotUserCodes) {
    EXPECT_EXIT(zd_get_err_info(-19999), testing::KilledBySignal(SIGABRT), assertion("false", 102));
    EXPECT_EXIT(zd_get_err_info(-21000), testing::KilledBySignal(SIGABRT), assertion("false", 102));
}

TEST(ErrInfoDeathTest, CopyNeedsADestinationAndARow) {
    EXPECT_EXIT(zd_get_usr_err_info(-20123, nullptr), testing::KilledBySignal(SIGABRT),
                assertion("usr_errinfo != NULL", 142));
    zd_err_info_t copy;
    EXPECT_EXIT(zd_get_usr_err_info(-140007, &copy), testing::KilledBySignal(SIGABRT),
                assertion("err_info != NULL", 149));
}

} // namespace
