// Every way in which an agent ends: its exit status, its log, and what it leaves beside it.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

#include "agent.h"

namespace {

using namespace agent_test;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

const LogLine kStartLine = {"WAR", "epa_worker_init succeeded"};
const LogLine kClosedLine = {"ERR", "ERROR_EPA_CONN_CLOSED occurred"};
const LogLine kIoLine = {"ERR", "ERROR_IO occurred"};

Call seven() {
    return {ROUTINES_LIBRARY, "returns_seven", int_return(), {}, 0};
}

// The end that a server may cause at any time: status 0, nothing on standard error, and the log in
// the backup directory.
void expect_orderly_end(Agent *agent, const std::vector<LogLine> &last_lines) {
    EXPECT_EQ(agent->wait(), exited(0));
    EXPECT_THAT(agent->log_files(), IsEmpty());
    EXPECT_THAT(agent->backup_files(), SizeIs(1));
    const std::vector<LogLine> lines = agent->log_lines();
    ASSERT_GE(lines.size(), last_lines.size());
    EXPECT_EQ(std::vector<LogLine>(lines.end() - static_cast<long>(last_lines.size()), lines.end()),
              last_lines);
    EXPECT_EQ(agent->standard_error(), "");
    EXPECT_FALSE(agent->has_error_file()) << agent->error_file();
}

// A named pipe that a routine waits on until release().
class Gate {
  public:
    Gate() {
        if (mkfifo(path().c_str(), 0600) != 0)
            throw std::runtime_error("mkfifo " + path());
        // Open for both, so that neither this nor the routine waits for the other to open it.
        fd_ = open(path().c_str(), O_RDWR | O_CLOEXEC);
    }
    Gate(const Gate &) = delete;
    Gate &operator=(const Gate &) = delete;
    ~Gate() { close(fd_); }

    std::string path() const { return directory_.path("gate"); }
    void release() const { ASSERT_EQ(write(fd_, "g", 1), 1); }

  private:
    TemporaryDirectory directory_;
    int fd_ = -1;
};

// --- the server goes away ------------------------------------------------------------------------

TEST(AgentEnd, ServerGoneBeforeAnyRequest) {
    Agent agent;
    agent.close_connection();
    expect_orderly_end(&agent, {kStartLine, kClosedLine});
}

TEST(AgentEnd, ServerGoneAfterAReply) {
    Agent agent;
    agent.call(seven());
    agent.close_connection();
    expect_orderly_end(&agent, {kStartLine, kClosedLine});
}

TEST(AgentEnd, ServerThatStopsSendingStillGetsItsReply) {
    Agent agent;
    agent.send(request(seven()));
    agent.shutdown_sending();
    EXPECT_THAT(agent.receive_reply().values, ElementsAre(bytes_of(int32_t{7})));
    expect_orderly_end(&agent, {kStartLine, kClosedLine});
}

TEST(AgentEnd, ServerGoneWithinTheHeader) {
    for (const size_t sent : {1u, 4u, 15u}) {
        Agent agent;
        agent.send(request(seven()).substr(0, sent));
        agent.close_connection();
        expect_orderly_end(&agent, {kStartLine, kClosedLine});
    }
}

TEST(AgentEnd, ServerGoneWithinTheBody) {
    const std::string whole = request(seven());
    for (const size_t sent : {kHeaderSize, kHeaderSize + 1, whole.size() - 1}) {
        Agent agent;
        agent.send(whole.substr(0, sent));
        agent.close_connection();
        expect_orderly_end(&agent, {kStartLine, kIoLine});
    }
}

TEST(AgentEnd, ServerGoneWhileARoutineRuns) {
    const Gate gate;
    Agent agent;
    agent.send(
        request({AGENT_ROUTINES, "wait_for_byte", int_return(), {text_param(gate.path())}, 0}));
    agent.close_connection();
    gate.release();
    expect_orderly_end(&agent, {kStartLine, kIoLine});
}

TEST(AgentEnd, ServerGoneWhileARoutineRunsThatThenRaises) {
    const Gate gate;
    Agent agent;
    agent.send(request(
        {AGENT_ROUTINES, "wait_and_raise", kNoReturn, {text_param(gate.path())}, kWithContext}));
    agent.close_connection();
    gate.release();
    expect_orderly_end(&agent, {{"ERR", "ec -20003 occurred"}, kIoLine});
}

TEST(AgentEnd, ServerGoneWithoutReadingItsReply) {
    const Gate gate;
    Agent agent;
    agent.send(request(seven()) +
               request({AGENT_ROUTINES, "wait_for_byte", kNoReturn, {text_param(gate.path())}, 0}));
    agent.receive(1);
    agent.close_connection();
    gate.release();
    expect_orderly_end(&agent, {kStartLine, kIoLine});
}

TEST(AgentEnd, RoutineThatClosesTheSocketEndsTheConnection) {
    Agent agent;
    agent.send(request({AGENT_ROUTINES, "close_socket_of_context", kNoReturn, {}, kWithContext}));
    expect_orderly_end(&agent, {kStartLine, kIoLine});
}

TEST(AgentEnd, RoutineThatRaisesTheCodeOfAClosedConnectionEndsIt) {
    Agent agent;
    agent.send(
        request({ROUTINES_LIBRARY, "raise_code", kNoReturn, {int_param(640001)}, kWithContext}));
    expect_orderly_end(&agent, {kStartLine, kClosedLine});
}

// --- what cannot be started ----------------------------------------------------------------------

TEST(AgentEnd, MissingHome) {
    Agent agent({.ends_before_service = true, .home_variables = {}});
    EXPECT_EQ(agent.wait(), exited(1));
    EXPECT_EQ(agent.error_file(), "ZD_HOME is not set\n");
}

TEST(AgentEnd, SecondHomeVariableServesAlone) {
    Agent agent({.home_variables = {"WQ_HOME"}});
    EXPECT_FALSE(agent.call(seven()).failed());
    agent.close_connection();
    expect_orderly_end(&agent, {kStartLine, kClosedLine});
}

TEST(AgentEnd, SecondHomeVariableIsNotAskedWhenTheFirstIsSet) {
    Agent agent({.environment = {{"WQ_HOME", "/no/such/home"}}});
    EXPECT_THAT(agent.log_files(), SizeIs(1));
}

TEST(AgentEnd, ReadinessSignalThatCannotBeSent) {
    Agent agent({.server_is_gone = true});
    EXPECT_EQ(agent.wait(), exited(1));
    EXPECT_FALSE(agent.has_error_file());
    // The log was open already, and nothing was written to it.
    EXPECT_THAT(agent.log_files(), SizeIs(1));
    EXPECT_EQ(agent.log(), "");
}

TEST(AgentEnd, NoReadinessSignalIsSentWhenNoneIsWanted) {
    Agent agent({.configuration = "LOG_LVL=3\n", .without_boot_signal = true});
    agent.send(request(seven()));
    EXPECT_THAT(agent.receive_reply().values, ElementsAre(bytes_of(int32_t{7})));
    agent.close_connection();
    EXPECT_EQ(agent.wait(), exited(0));
    EXPECT_EQ(agent.log_lines().front(), kStartLine);
}

TEST(AgentEnd, LogDirectoryThatCannotBeMade) {
    const TemporaryDirectory directory;
    const std::string file = directory.path("a_file");
    std::ofstream(file) << "not a directory";
    Agent agent({.configuration = "LOG_DIR=" + file + "/logs\n", .ends_before_service = true});
    EXPECT_EQ(agent.wait(), exited(1));
    EXPECT_THAT(agent.error_file(),
                testing::MatchesRegex("Cannot open log file \"" + file +
                                      "/logs/zdepa\\.log_[0-9]{14}_" + std::to_string(agent.pid()) +
                                      "\\.log\"\n"));
}

TEST(AgentEnd, LogSizeThatBecomesNegative) {
    for (const std::string setting : {"MAX_LOG_SIZE=2G\n", "MAX_LOG_BACKUP_SIZE=3G\n"}) {
        Agent agent({.configuration = setting, .ends_before_service = true});
        EXPECT_EQ(agent.wait(), exited(1));
        EXPECT_EQ(agent.error_file(), "MAX_LOG_SIZE or MAX_LOG_BACKUP_SIZE are inappropriate \n");
    }
}

TEST(AgentEnd, LogSizeThatBecomesZeroMeansNoLimit) {
    Agent agent({.configuration = "MAX_LOG_SIZE=4G\n"});
    agent.close_connection();
    expect_orderly_end(&agent, {kStartLine, kClosedLine});
}

TEST(AgentEnd, BackupDirectoryThatCannotBeMade) {
    Agent agent;
    std::ofstream(agent.agent_dir() + "/backup") << "not a directory";
    agent.close_connection();
    EXPECT_EQ(agent.wait(), exited(1));
    EXPECT_EQ(agent.error_file(), "Cannot backup log file\n");
    EXPECT_THAT(agent.log_files(), SizeIs(1));
}

TEST(AgentEnd, EmptyLogCannotBeMovedAway) {
    // At this level not even the end is logged. The empty file is deleted, and then missed.
    Agent agent({.configuration = "LOG_LVL=0\n"});
    agent.close_connection();
    EXPECT_EQ(agent.wait(), exited(1));
    EXPECT_EQ(agent.error_file(), "Cannot backup log file\n");
    EXPECT_THAT(agent.log_files(), IsEmpty());
    EXPECT_THAT(agent.backup_files(), IsEmpty());
}

// --- what a routine does -------------------------------------------------------------------------

TEST(AgentEnd, RoutineThatCrashes) {
    Agent agent;
    agent.send(request({ROUTINES_LIBRARY, "crash", kNoReturn, {}, 0}));
    EXPECT_EQ(agent.wait(), exited(1));
    EXPECT_THAT(agent.log_lines(),
                ElementsAre(kStartLine, LogLine{"FAT", "SEGMENTATION FAULT DETECTED"}));
    EXPECT_THAT(agent.log_files(), SizeIs(1)); // not moved away
    EXPECT_FALSE(agent.has_error_file());
}

TEST(AgentEnd, RoutineThatAborts) {
    Agent agent;
    agent.send(request({ROUTINES_LIBRARY, "call_abort", kNoReturn, {}, 0}));
    EXPECT_EQ(agent.wait(), killed_by(SIGABRT));
    EXPECT_THAT(agent.log_lines(), ElementsAre(kStartLine));
}

TEST(AgentEnd, RoutineThatExits) {
    Agent agent;
    agent.send(request({ROUTINES_LIBRARY, "call_exit", kNoReturn, {int_param(3)}, 0}));
    EXPECT_EQ(agent.wait(), exited(3));
    EXPECT_THAT(agent.log_lines(), ElementsAre(kStartLine));
}

TEST(AgentEnd, RoutineWithoutContextThatIsGivenNone) {
    // The service refuses no context: it takes what it is given, which here is the number 8.
    Agent agent;
    agent.send(request({AGENT_ROUTINES,
                        "raise_own_code",
                        kNoReturn,
                        {long_param(8), int_param(20001), text_param("text")},
                        0}));
    EXPECT_EQ(agent.wait(), exited(1));
    EXPECT_THAT(agent.log_lines(), Contains(LogLine{"FAT", "SEGMENTATION FAULT DETECTED"}));
}

// A call's memory goes in one step, without a look at its blocks: what a routine writes just behind
// its OUT buffer harms nothing, and is not reported either.
TEST(AgentEnd, OneByteBehindAnOutBufferIsAbsorbed) {
    Agent agent;
    const Reply reply = agent.call(
        {ROUTINES_LIBRARY, "overrun", kNoReturn, {text_param("", 64), int_param(64)}, 0});
    EXPECT_THAT(reply.values, ElementsAre(std::string(63, 'y')));
    EXPECT_THAT(agent.call(seven()).values, ElementsAre(bytes_of(int32_t{7})));
    agent.close_connection();
    expect_orderly_end(&agent, {kStartLine, kClosedLine});
}

// --- bodies that cannot be read ------------------------------------------------------------------

class AgentHostileBody : public testing::Test {
  protected:
    // The decoder's assertion, its values, the dump, and the end by SIGABRT.
    void expect_assertion(const std::string &body, const std::string &condition) {
        Agent agent;
        agent.send(message(kRequestType, body));
        EXPECT_EQ(agent.wait(), killed_by(SIGABRT)) << condition;
        EXPECT_THAT(agent.standard_error(),
                    AllOf(HasSubstr("Assert failed: " + condition + " ("),
                          HasSubstr("[ZDMSG Dump]\ncreated at "),
                          HasSubstr("\ntype: 139\nbodysize: " + std::to_string(body.size()) +
                                    "\ntsn: 0\nstr_auto_free: 0\n[raw msg header]\n"),
                          HasSubstr("\n[raw msg body]\n")));
        EXPECT_THAT(agent.log_lines(), ElementsAre(kStartLine));
        EXPECT_FALSE(agent.has_error_file());
    }

    // A body up to its parameters' count.
    static std::string front(const std::string &library = ROUTINES_LIBRARY) {
        return text_field(library) + text_field("returns_seven") + big_endian(0) + big_endian(0);
    }
};

const char kTopLevelRoom[] = "(offset + sizeof(int)) <= msg->body_size";
const char kTopLevelEnd[] = "offset <= msg->body_size";
const char kNestedRoom[] = "(*offset + sizeof(int)) <= body_size";
const char kNestedEnd[] = "*offset <= body_size";

TEST_F(AgentHostileBody, EmptyBody) {
    expect_assertion("", kTopLevelRoom);
}

TEST_F(AgentHostileBody, BodyThatEndsInsideAnInteger) {
    expect_assertion("\x01\x02\x03", kTopLevelRoom);
    expect_assertion(front() + std::string(3, '\0'), kTopLevelRoom);
}

TEST_F(AgentHostileBody, TextLongerThanTheBody) {
    expect_assertion(big_endian(100) + std::string(50, 'x'), kTopLevelEnd);
}

TEST_F(AgentHostileBody, TextWithoutRoomForItsPadding) {
    expect_assertion(big_endian(8) + std::string(8, 'x'), kTopLevelEnd);
}

TEST_F(AgentHostileBody, LengthsThatAreNegativeOrHuge) {
    for (const uint32_t length :
         {0xffffffffu, 0xfffffffcu, 0x80000000u, 0x7fffffffu, 0x7ffffffcu, 0xffffff00u}) {
        Agent agent;
        agent.send(message(kRequestType, big_endian(length) + std::string(200, 'x')));
        EXPECT_EQ(agent.wait(), killed_by(SIGABRT)) << length;
        EXPECT_THAT(agent.standard_error(), HasSubstr("Assert failed: ")) << length;
        EXPECT_THAT(agent.standard_error(), HasSubstr("[ZDMSG Dump]\n")) << length;
    }
}

TEST_F(AgentHostileBody, CountsThatTheBodyCannotHold) {
    expect_assertion(front() + big_endian(1), kNestedRoom);
    expect_assertion(front() + big_endian(1000), kNestedRoom);
}

TEST_F(AgentHostileBody, CountThatNoMemoryCanHold) {
    Agent agent;
    agent.send(message(kRequestType, front() + big_endian(0x7fffffff)));
    EXPECT_EQ(agent.wait(), killed_by(SIGABRT));
    EXPECT_THAT(agent.standard_error(), HasSubstr("Assert failed: "));
}

TEST_F(AgentHostileBody, ParameterThatEndsEarly) {
    expect_assertion(front() + big_endian(2) + big_endian(0) + big_endian(0) + text_field("one") +
                         big_endian(0),
                     kNestedRoom);
    expect_assertion(front() + big_endian(1) + big_endian(0) + big_endian(0) + big_endian(5) +
                         "12345",
                     kNestedEnd);
}

TEST_F(AgentHostileBody, EveryTruncationOfAGoodBodyEndsTheAgentInOrder) {
    const std::string whole =
        body_of({ROUTINES_LIBRARY, "add", int_return(), {int_param(1), text_param("text", 9)}, 0});
    for (size_t size = 0; size < whole.size(); size += 7) {
        Agent agent;
        agent.send(message(kRequestType, whole.substr(0, size)));
        EXPECT_EQ(agent.wait(), killed_by(SIGABRT)) << size;
        EXPECT_THAT(agent.standard_error(), HasSubstr("[ZDMSG Dump]\n")) << size;
    }
}

TEST_F(AgentHostileBody, NegativeCountMeansNoParameters) {
    Agent agent;
    for (const uint32_t count : {0xffffffffu, 0x80000000u}) {
        const std::string body = text_field(ROUTINES_LIBRARY) + text_field("returns_seven") +
                                 big_endian(0) + big_endian(static_cast<uint32_t>(int_return())) +
                                 big_endian(count);
        agent.send(message(kRequestType, body));
        EXPECT_THAT(agent.receive_reply().values, ElementsAre(bytes_of(int32_t{7})));
    }
}

TEST_F(AgentHostileBody, BytesBehindTheLastParameterAreNotLookedAt) {
    Agent agent;
    agent.send(message(kRequestType, body_of(seven()) + std::string(40, '\xee')));
    EXPECT_THAT(agent.receive_reply().values, ElementsAre(bytes_of(int32_t{7})));
}

} // namespace
