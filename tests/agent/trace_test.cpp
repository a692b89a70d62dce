// What one agent writes into its log, line by line.

#include <gmock/gmock.h>

#include "agent.h"

namespace {

using namespace agent_test;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::SizeIs;

const std::string kIndent = "    "; // of the level, besides the one blank

Call sum_call() {
    return {ROUTINES_LIBRARY, "add", int_return(), {int_param(40), int_param(-2)}, 0};
}

std::vector<LogLine> log_of(const std::string &configuration, const std::vector<Call> &calls) {
    Agent agent({.configuration = configuration});
    for (const Call &call : calls)
        agent.call(call);
    EXPECT_EQ(agent.finish(), exited(0));
    return agent.log_lines();
}

// The lines of the calls alone, without start and end.
std::vector<LogLine> log_of_calls(const std::string &configuration,
                                  const std::vector<Call> &calls) {
    std::vector<LogLine> lines = log_of(configuration, calls);
    EXPECT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0], (LogLine{"INF", "socket writes prepare"}));
    EXPECT_EQ(lines[1], (LogLine{"WAR", "epa_worker_init succeeded"}));
    EXPECT_EQ(lines.back(), (LogLine{"ERR", "ERROR_EPA_CONN_CLOSED occurred"}));
    return {lines.begin() + 2, lines.end() - 1};
}

LogLine info(const std::string &text) {
    return {"INF", text};
}

LogLine trace(const std::string &text) {
    return {"TRC", kIndent + text};
}

LogLine library_line(const std::string &function, const std::string &library = ROUTINES_LIBRARY) {
    return info("libpath : " + library + ", funcname : " + function);
}

const std::string kRequestIndent(12, ' ');
const std::string kReplyIndent(16, ' ');

TEST(AgentTrace, DefaultLevelWritesStartAndEnd) {
    EXPECT_THAT(log_of("", {sum_call()}),
                ElementsAre(LogLine{"WAR", "epa_worker_init succeeded"},
                            LogLine{"ERR", "ERROR_EPA_CONN_CLOSED occurred"}));
}

TEST(AgentTrace, InfoShowsRequestsAndRoutines) {
    EXPECT_THAT(log_of_calls("LOG_LVL=3\n", {sum_call()}),
                ElementsAre(info("REQUEST[type=139] RECEIVED"), library_line("add")));
}

TEST(AgentTrace, DebugAddsNothing) {
    EXPECT_EQ(log_of_calls("LOG_LVL=4\n", {sum_call()}), log_of_calls("LOG_LVL=3\n", {sum_call()}));
}

std::vector<LogLine> trace_of_sum(bool with_data) {
    std::vector<LogLine> lines = {
        info("REQUEST[type=139] RECEIVED"),
        trace("0th param - call_method : 0, param_mode : 1, zd_type : 26, zd_type_ext : 5, "
              "len : 4, maxlen : 4"),
        trace(kRequestIndent + "data : [40]"),
        trace("epa_dlfunc_setarg_integer called"),
        trace("Writing on rdx: rdx_cnt[0] data_offset_len[8]copy_len[4]"),
        trace("1th param - call_method : 0, param_mode : 1, zd_type : 26, zd_type_ext : 5, "
              "len : 4, maxlen : 4"),
        trace(kRequestIndent + "data : [-2]"),
        trace("epa_dlfunc_setarg_integer called"),
        trace("Writing on rdx: rdx_cnt[1] data_offset_len[8]copy_len[4]"),
        library_line("add"),
        trace("epa_dl_call: param_size[0]"),
        trace("dlopen success"),
        trace("dlsym success"),
        trace("function call to user library add"),
        trace("function call end"),
        trace("0th out param - call_method : 0, zd_type_ext : 5, len : 4"),
        trace(kReplyIndent + "data : [38]"),
    };
    if (!with_data)
        std::erase_if(lines, [](const LogLine &line) {
            return line.text.find("data : [") != std::string::npos;
        });
    return lines;
}

TEST(AgentTrace, TraceShowsEveryStepAndValue) {
    EXPECT_THAT(log_of_calls("LOG_LVL=5\n", {sum_call()}), ElementsAreArray(trace_of_sum(true)));
}

TEST(AgentTrace, InternalShowsEveryStepAndNoValue) {
    EXPECT_THAT(log_of_calls("LOG_LVL=6\n", {sum_call()}), ElementsAreArray(trace_of_sum(false)));
}

TEST(AgentTrace, SpilledArgumentsContextAndOutValues) {
    std::vector<Param> params;
    for (int i = 0; i < 6; i++)
        params.push_back(int_param(i));
    for (int i = 0; i < 9; i++)
        params.push_back(double_param(i + 0.25));
    params.push_back(text_param("in", 9));
    std::vector<LogLine> expected = {
        info("REQUEST[type=139] RECEIVED"),
        trace("epa_dlfunc_setarg_integer called"),
        trace("Writing on rdx: rdx_cnt[0] data_offset_len[8]copy_len[8]"),
    };
    for (int i = 0; i < 6; i++) {
        const std::string number = std::to_string(i);
        expected.push_back(trace(number + "th param - call_method : 0, param_mode : 1, zd_type : "
                                          "26, zd_type_ext : 5, len : 4, maxlen : 4"));
        expected.push_back(trace(kRequestIndent + "data : [" + number + "]"));
        expected.push_back(trace("epa_dlfunc_setarg_integer called"));
        expected.push_back(
            i < 5 ? trace("Writing on rdx: rdx_cnt[" + std::to_string(i + 1) +
                          "] data_offset_len[8]copy_len[4]")
                  : trace("Writing on stack: param_offset[0] data_offset_len[8]copy_len[4]"));
    }
    for (int i = 0; i < 9; i++) {
        expected.push_back(trace(std::to_string(i + 6) +
                                 "th param - call_method : 0, param_mode : 1, zd_type : 24, "
                                 "zd_type_ext : 11, len : 8, maxlen : 8"));
        expected.push_back(trace(kRequestIndent + "data : [" + std::to_string(i) + ".250000]"));
        expected.push_back(trace("epa_dlfunc_setarg_floating called"));
        // A vector register is filled without a line.
        if (i == 8)
            expected.push_back(
                trace("Writing on stack: param_offset[8] data_offset_len[8]copy_len[8]"));
    }
    const std::vector<LogLine> rest = {
        trace("15th param - call_method : 1, param_mode : 3, zd_type : 3, zd_type_ext : 12, "
              "len : 2, maxlen : 9"),
        trace(kRequestIndent + "data : [in]"),
        trace("epa_dlfunc_setarg_integer called"),
        trace("Writing on stack: param_offset[16] data_offset_len[8]copy_len[8]"),
        library_line("do_nothing", AGENT_ROUTINES),
        trace("epa_dl_call: param_size[24]"),
        trace("dlopen success"),
        trace("dlsym success"),
        trace("function call to user library do_nothing"),
        trace("function call end"),
        trace("0th out param - call_method : 1, zd_type_ext : 12, len : 2"),
        trace(kReplyIndent + "data : [in]"),
    };
    expected.insert(expected.end(), rest.begin(), rest.end());
    EXPECT_THAT(log_of_calls("LOG_LVL=5\n",
                             {{AGENT_ROUTINES, "do_nothing", kNoReturn, params, kWithContext}}),
                ElementsAreArray(expected));
}

TEST(AgentTrace, ResultByReferenceIsShownAndOutValuesAreNumberedBehindIt) {
    const std::vector<LogLine> lines = log_of_calls(
        "LOG_LVL=5\n",
        {{ROUTINES_LIBRARY, "return_text", reference_return(kString), {int_param(3, kOut)}, 0}});
    ASSERT_GE(lines.size(), 4u);
    const std::vector<LogLine> last(lines.end() - 4, lines.end());
    EXPECT_THAT(last,
                ElementsAre(trace("0th out param - call_method : 1, zd_type_ext : 12, len : 11"),
                            trace(kReplyIndent + "data : [static text]"),
                            trace("1th out param - call_method : 0, zd_type_ext : 5, len : 4"),
                            trace(kReplyIndent + "data : [3]")));
}

TEST(AgentTrace, MissingFunctionIsLookedUpBeforeItIsMissed) {
    const std::vector<LogLine> lines =
        log_of_calls("LOG_LVL=5\n", {{ROUTINES_LIBRARY, "no_such_routine", kNoReturn, {}, 0}});
    EXPECT_THAT(lines,
                ElementsAre(info("REQUEST[type=139] RECEIVED"), library_line("no_such_routine"),
                            trace("epa_dl_call: param_size[0]"), trace("dlopen success"),
                            trace("dlsym success"),
                            LogLine{"ERR", "ERROR_EPA_FUNCTION_OPEN_FAILED occurred"}));
}

TEST(AgentTrace, MissingLibraryEndsBeforeItIsOpened) {
    const std::vector<LogLine> lines =
        log_of_calls("LOG_LVL=5\n", {{"/no/such/library.so", "x", kNoReturn, {}, 0}});
    EXPECT_THAT(lines, ElementsAre(info("REQUEST[type=139] RECEIVED"),
                                   library_line("x", "/no/such/library.so"),
                                   trace("epa_dl_call: param_size[0]"),
                                   LogLine{"ERR", "ERROR_EPA_LIBRARY_OPEN_FAILED occurred"}));
}

TEST(AgentTrace, UnknownTypeIsLoggedAsReceived) {
    Agent agent({.configuration = "LOG_LVL=3\n"});
    agent.send(message(5000, ""));
    agent.receive_reply();
    const std::vector<LogLine> lines = agent.log_lines();
    ASSERT_GE(lines.size(), 3u);
    const std::vector<LogLine> last(lines.end() - 3, lines.end());
    EXPECT_THAT(last, ElementsAre(info("REQUEST[type=5000] RECEIVED"),
                                  LogLine{"FAT", "Unknown Request Type"},
                                  LogLine{"ERR", "ERROR_EPA_INVALID_PROTOCOL occurred"}));
}

TEST(AgentTrace, LogFileIsNamedAfterTimeAndProcess) {
    Agent agent;
    ASSERT_THAT(agent.log_files(), SizeIs(1));
    EXPECT_THAT(agent.log_files()[0],
                testing::MatchesRegex(agent.agent_dir() + "/zdepa\\.log_[0-9]{14}_" +
                                      std::to_string(agent.pid()) + "\\.log"));
}

TEST(AgentTrace, LogGoesToTheConfiguredDirectory) {
    const TemporaryDirectory elsewhere;
    Agent agent({.configuration = "LOG_DIR=" + elsewhere.path("made/on/demand") + "\n"});
    EXPECT_THAT(agent.log_files(), testing::IsEmpty());
    EXPECT_EQ(agent.finish(), exited(0));
    EXPECT_THAT(log_files_in(elsewhere.path("made/on/demand/backup")), SizeIs(1));
}

TEST(AgentTrace, GrownLogMovesToTheBackupDirectory) {
    constexpr size_t kSmallestLimit = 1 << 20;
    Agent agent({.configuration = "LOG_LVL=5\nMAX_LOG_SIZE=1\n"});
    int requests = 0;
    while (agent.backup_files().empty() && requests < 5000) {
        agent.call(sum_call());
        requests++;
    }
    ASSERT_THAT(agent.backup_files(), SizeIs(1)) << requests << " requests";
    // Looked at before each line: a file may be one line larger.
    EXPECT_GT(agent.backup_log().size(), kSmallestLimit);
    EXPECT_LT(agent.backup_log().size(), kSmallestLimit + 200);
    ASSERT_THAT(agent.log_files(), SizeIs(1));
    EXPECT_LT(file_text(agent.log_files()[0]).size(), 10000u);
    EXPECT_EQ(agent.finish(), exited(0));
}

} // namespace
