// Errors of routines and of calls, as the server reads them from the error reply.

#include <gmock/gmock.h>

#include "agent.h"

namespace {

using namespace agent_test;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class AgentError : public testing::Test {
  protected:
    Reply raise(int code) {
        return agent_.call(
            {ROUTINES_LIBRARY, "raise_code", kNoReturn, {int_param(code)}, kWithContext});
    }

    Reply raise(int code, const std::string &text) {
        return agent_.call({ROUTINES_LIBRARY,
                            "raise_text",
                            kNoReturn,
                            {int_param(code), text_param(text)},
                            kWithContext});
    }

    Reply raise_then_return(int code) {
        return agent_.call(
            {ROUTINES_LIBRARY, "raise_then_return", int_return(), {int_param(code)}, kWithContext});
    }

    Agent agent_;
};

TEST_F(AgentError, OwnCodeTravelsWithItsTextAndItsPlace) {
    const Reply reply = raise(20001, "no such customer");
    EXPECT_EQ(reply.output, "");
    EXPECT_THAT(reply.values, IsEmpty());
    EXPECT_EQ(reply.stack_bytes.size(), 16u + 936u);
    EXPECT_EQ(reply.stack.id_next, 1);
    EXPECT_EQ(reply.stack.count, 1);
    EXPECT_EQ(reply.stack.user_count, 1);
    const ErrorRecord &error = reply.error();
    EXPECT_EQ(error.id, 0);
    EXPECT_EQ(error.code, -20001);
    EXPECT_EQ(error.object_id, 0u);
    EXPECT_EQ(error.number, 0u);
    EXPECT_EQ(error.user_error, '1');
    EXPECT_EQ(error.sqlstate, "ERRPS");
    EXPECT_EQ(error.text, " no such customer.   ");
    EXPECT_EQ(error.object_id_occurred, 0xffffffffu);
    EXPECT_THAT(error.span, Each(0));
    EXPECT_EQ(error.file, "epa_usr_util");
    EXPECT_GT(error.line, 0);
    EXPECT_EQ(error.function, "SQLExtProcDirectRaiseErrorWithMsg");
}

TEST_F(AgentError, OwnCodeWithoutTextHasAnEmptyOne) {
    const Reply reply = raise(20001);
    EXPECT_EQ(reply.code(), -20001);
    EXPECT_EQ(reply.error().text, " .   ");
    EXPECT_EQ(reply.error().function, "SQLExtProcDirectRaiseError");
}

TEST_F(AgentError, OwnCodesRunFrom20000To20999) {
    EXPECT_EQ(raise(20000, "first").code(), -20000);
    EXPECT_EQ(raise(20000, "first").error().text, " first.   ");
    EXPECT_EQ(raise(20999, "last").code(), -20999);
    EXPECT_EQ(raise(20999, "last").error().text, " last.   ");
    EXPECT_EQ(raise(19999, "below").code(), -140010);
    EXPECT_EQ(raise(21000, "above").code(), -140010);
}

TEST_F(AgentError, LongTextIsCut) {
    const Reply reply = raise(20001, std::string(1000, 'x'));
    EXPECT_EQ(reply.error().text, " " + std::string(710, 'x'));
}

TEST_F(AgentError, ConversionsInATextAreNotInterpreted) {
    EXPECT_EQ(raise(20001, "100%s of %n %1$s").error().text, " 100%s of %n %1$s.   ");
}

TEST_F(AgentError, ZeroAndNegativeCodesAreIgnored) {
    for (const int code : {0, -5, -20001, -140006, INT32_MIN}) {
        const Reply reply = raise_then_return(code);
        EXPECT_EQ(reply.code(), 0) << code;
        EXPECT_THAT(reply.values, ElementsAre(bytes_of(int32_t{99}))) << code;
    }
}

TEST_F(AgentError, UnknownCodeIsNamedInTheText) {
    for (const int code : {999999, INT32_MAX, 140001, 140007}) {
        const Reply reply = raise(code, "not used");
        EXPECT_EQ(reply.code(), -140010) << code;
        EXPECT_EQ(reply.error().text, " Invalid error code - " + std::to_string(code) + ".   ");
        EXPECT_EQ(reply.error().sqlstate, "ERREP");
    }
}

TEST_F(AgentError, KnownCodeHasTheTextOfTheCatalogue) {
    const Reply reply = raise(140006, "not used");
    EXPECT_EQ(reply.code(), -140006);
    EXPECT_EQ(reply.error().text, " Unexpected external procedure failed.   ");
    EXPECT_EQ(reply.stack.count, 1);
}

TEST_F(AgentError, KnownCodeWhoseTextWantsArgumentsGetsSomePrintableOnes) {
    const Reply reply = raise(140004);
    EXPECT_EQ(reply.code(), -140004);
    EXPECT_THAT(reply.error().text, testing::StartsWith(" Failed to open library ('"));
    EXPECT_EQ(raise(18007).code(), -18007);
    EXPECT_EQ(raise(220015).code(), -220015); // text, number, text
    EXPECT_THAT(raise_then_return(0).values, ElementsAre(bytes_of(int32_t{99})));
}

TEST_F(AgentError, InternalCodeIsNoUserError) {
    const Reply reply = raise(640007);
    EXPECT_EQ(reply.code(), -640007);
    EXPECT_EQ(reply.error().user_error, '0');
    EXPECT_EQ(reply.stack.count, 1);
    EXPECT_EQ(reply.stack.user_count, 0);
    EXPECT_EQ(reply.error().text, " Parameter info is invalid");
}

TEST_F(AgentError, NewestErrorComesFirst) {
    const Reply reply = agent_.call({AGENT_ROUTINES, "raise_three", kNoReturn, {}, kWithContext});
    EXPECT_EQ(reply.stack_bytes.size(), 2824u);
    EXPECT_EQ(reply.stack.count, 3);
    EXPECT_EQ(reply.stack.user_count, 2);
    EXPECT_EQ(reply.stack.id_next, 3);
    ASSERT_THAT(reply.stack.errors, SizeIs(3));
    const ErrorRecord &newest = reply.stack.errors[0];
    const ErrorRecord &inner = reply.stack.errors[1];
    const ErrorRecord &lower = reply.stack.errors[2];
    EXPECT_EQ(newest.code, -20001);
    EXPECT_EQ(newest.id, 2);
    EXPECT_EQ(newest.text, " the newest.   ");
    EXPECT_EQ(inner.code, -640007);
    EXPECT_EQ(inner.id, 1);
    EXPECT_EQ(inner.user_error, '0');
    EXPECT_EQ(inner.file, "inner_unit");
    EXPECT_EQ(lower.code, -18017);
    EXPECT_EQ(lower.id, 0);
    EXPECT_EQ(lower.user_error, '1');
    EXPECT_EQ(lower.sqlstate, "");
    EXPECT_EQ(lower.text, " Unknown I/O error.   ");
    EXPECT_EQ(lower.file, "lower_unit");
    EXPECT_EQ(lower.line, 77);
    EXPECT_EQ(lower.function, "lower_function");
}

TEST_F(AgentError, StackIsEmptiedForTheNextRequestAndItsNumbersGoOn) {
    raise(20001, "first");
    const Reply reply = raise(20002, "second");
    EXPECT_EQ(reply.stack.count, 1);
    EXPECT_EQ(reply.stack.user_count, 1);
    EXPECT_EQ(reply.error().id, 1);
    EXPECT_EQ(reply.stack.id_next, 2);
}

TEST_F(AgentError, RaisedCodeIsLoggedByItsNameOrByItsNumberWhenItHasNone) {
    raise(140006);
    raise(20001); // the one own code with a row in the catalogue
    raise(20002);
    EXPECT_THAT(agent_.log_lines(), ElementsAre(LogLine{"WAR", "epa_worker_init succeeded"},
                                                LogLine{"ERR", "ERROR_EPA_FAIL occurred"},
                                                LogLine{"ERR", "ERROR_PSMUSER occurred"},
                                                LogLine{"ERR", "ec -20002 occurred"}));
}

// --- the call itself -----------------------------------------------------------------------------

TEST_F(AgentError, MissingLibraryIsReportedWithTheLoadersText) {
    const Reply reply = agent_.call({"/no/such/library.so", "x", kNoReturn, {}, 0});
    EXPECT_EQ(reply.code(), -140004);
    EXPECT_EQ(reply.error().text,
              " Failed to open library ('/no/such/library.so') - /no/such/library.so: cannot open "
              "shared object file: No such file or directory.   ");
    EXPECT_EQ(reply.error().file, "epa_dl_call");
    EXPECT_EQ(reply.error().line, 1092);
    EXPECT_THAT(agent_.log_lines(),
                Contains(LogLine{"ERR", "ERROR_EPA_LIBRARY_OPEN_FAILED occurred"}));
}

TEST_F(AgentError, FileThatIsNoLibraryIsReportedWithTheLoadersText) {
    const std::string path = agent_.path("stderr");
    const Reply reply = agent_.call({path, "x", kNoReturn, {}, 0});
    EXPECT_EQ(reply.code(), -140004);
    EXPECT_THAT(reply.error().text,
                testing::StartsWith(" Failed to open library ('" + path + "') - "));
    EXPECT_THAT(reply.error().text, HasSubstr("file too short"));
}

TEST_F(AgentError, MissingFunctionIsReportedWithTheLoadersText) {
    const Reply reply = agent_.call({ROUTINES_LIBRARY, "no_such_routine", kNoReturn, {}, 0});
    EXPECT_EQ(reply.code(), -140009);
    EXPECT_EQ(reply.error().text, " Function ('no_such_routine') call failed - " +
                                      std::string(ROUTINES_LIBRARY) +
                                      ": undefined symbol: no_such_routine.   ");
    EXPECT_EQ(reply.error().file, "epa_dl_call");
    EXPECT_EQ(reply.error().line, 605);
    EXPECT_EQ(reply.error().function, "epa_dl_call");
}

TEST_F(AgentError, FunctionNameAboveTheLimitIsRefused) {
    const Reply reply = agent_.call({ROUTINES_LIBRARY, std::string(129, 'f'), kNoReturn, {}, 0});
    EXPECT_EQ(reply.code(), -140016);
    EXPECT_EQ(reply.error().text, " The length of the user function name is too long.   ");
    const Reply longest = agent_.call({ROUTINES_LIBRARY, std::string(128, 'f'), kNoReturn, {}, 0});
    EXPECT_EQ(longest.code(), -140009);
}

TEST_F(AgentError, ParameterThatCannotBeAValueIsRefused) {
    const Reply by_type = agent_.call({ROUTINES_LIBRARY,
                                       "returns_seven",
                                       kNoReturn,
                                       {{flag(kByValue, kIn, kDbNumber, kInt), 4, "1234"}},
                                       0});
    EXPECT_EQ(by_type.code(), -140014);
    EXPECT_EQ(by_type.error().file, "epa_type");
    EXPECT_EQ(by_type.error().line, 37);
    const Reply by_native = agent_.call({ROUTINES_LIBRARY,
                                         "returns_seven",
                                         kNoReturn,
                                         {{flag(kByValue, kIn, kPlsInt, kString), 4, "1234"}},
                                         0});
    EXPECT_EQ(by_native.code(), -640007);
    EXPECT_EQ(by_native.error().file, "epa_dl_call");
    EXPECT_EQ(by_native.error().function, "epa_get_managed_dlf");
}

TEST_F(AgentError, EveryRequestAfterAFailedOneIsServed) {
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(raise(20001).code(), -20001);
        EXPECT_THAT(raise_then_return(0).values, ElementsAre(bytes_of(int32_t{99})));
    }
}

} // namespace
