// What an agent keeps between the calls: the connection slot and the opened libraries.

#include <gmock/gmock.h>

#include <filesystem>

#include "agent.h"

namespace {

using namespace agent_test;
using testing::ElementsAre;

// --- the connection slot -------------------------------------------------------------------------

struct Connection {
    int is_connected;
    int64_t henv;
    int64_t hdbc;
    bool operator==(const Connection &other) const = default;
};

class AgentConnection : public testing::Test {
  protected:
    void report(int64_t henv, int64_t hdbc, int is_connected) {
        agent_.call({AGENT_ROUTINES,
                     "report_connection",
                     kNoReturn,
                     {long_param(henv), long_param(hdbc), int_param(is_connected)},
                     kWithContext});
    }

    // What the next routine finds in its context.
    Connection seen() {
        const Reply reply = agent_.call({AGENT_ROUTINES,
                                         "seen_connection",
                                         int_return(),
                                         {reference_param(kRaw, kOut, 16, "")},
                                         kWithContext});
        Connection connection;
        memcpy(&connection.is_connected, reply.values.at(0).data(), 4);
        memcpy(&connection.henv, reply.values.at(1).data(), 8);
        memcpy(&connection.hdbc, reply.values.at(1).data() + 8, 8);
        return connection;
    }

    Agent agent_;
};

TEST_F(AgentConnection, IsAbsentAtFirst) {
    EXPECT_EQ(seen(), (Connection{0, 0, 0}));
}

TEST_F(AgentConnection, OutlivesTheCallThatReportedIt) {
    report(0x1122334455667788, -2, 1);
    EXPECT_EQ(seen(), (Connection{1, 0x1122334455667788, -2}));
    EXPECT_EQ(seen(), (Connection{1, 0x1122334455667788, -2}));
}

TEST_F(AgentConnection, IsNotTakenFromACallThatReportsNone) {
    report(11, 22, 0);
    EXPECT_EQ(seen(), (Connection{0, 0, 0}));
}

TEST_F(AgentConnection, IsTakenForTheValueOneOnly) {
    report(11, 22, 2);
    EXPECT_EQ(seen(), (Connection{0, 0, 0}));
    report(33, 44, 1);
    report(55, 66, 255);
    EXPECT_EQ(seen(), (Connection{1, 33, 44}));
}

TEST_F(AgentConnection, NeverEndsOnceThereIsOne) {
    report(33, 44, 1);
    report(0, 0, 0);
    EXPECT_EQ(seen(), (Connection{1, 33, 44}));
}

TEST_F(AgentConnection, IsReplacedByALaterOne) {
    report(33, 44, 1);
    report(55, 66, 1);
    EXPECT_EQ(seen(), (Connection{1, 55, 66}));
}

TEST_F(AgentConnection, SurvivesAFailedCall) {
    report(33, 44, 1);
    agent_.call({ROUTINES_LIBRARY, "raise_code", kNoReturn, {int_param(20001)}, kWithContext});
    EXPECT_EQ(seen(), (Connection{1, 33, 44}));
}

TEST_F(AgentConnection, ContextHoldsTheAgentsSocketAllocatorAndErrorStack) {
    EXPECT_THAT(
        agent_.call({AGENT_ROUTINES, "socket_of_context", int_return(), {}, kWithContext}).values,
        ElementsAre(bytes_of(int32_t{3})));
    EXPECT_THAT(
        agent_.call({AGENT_ROUTINES, "has_allocator_and_stack", int_return(), {}, kWithContext})
            .values,
        ElementsAre(bytes_of(int32_t{1})));
}

// --- the libraries -------------------------------------------------------------------------------

// A library's own count of its calls shows whether it was opened anew, the agent's memory map
// whether it is open.
class AgentLibraries : public testing::Test {
  protected:
    void SetUp() override {
        for (int i = 0; i < 20; i++)
            std::filesystem::copy_file(COUNTING_LIBRARY, library(i));
    }

    std::string library(int number) const {
        return copies_.path("copy_" + std::to_string(number) + ".so");
    }

    int call(Agent *agent, const std::string &library) {
        const Reply reply = agent->call({library, "count_call", int_return(), {}, 0});
        int count;
        memcpy(&count, reply.values.at(0).data(), sizeof count);
        return count;
    }

    std::vector<int> open_copies(const Agent &agent) const {
        const std::string map = file_text("/proc/" + std::to_string(agent.pid()) + "/maps");
        std::vector<int> numbers;
        for (int i = 0; i < 20; i++)
            if (map.find(library(i) + "\n") != std::string::npos)
                numbers.push_back(i);
        return numbers;
    }

    TemporaryDirectory copies_;
};

TEST_F(AgentLibraries, OpenedLibraryStaysOpen) {
    Agent agent;
    EXPECT_EQ(call(&agent, library(0)), 1);
    EXPECT_EQ(call(&agent, library(0)), 2);
    EXPECT_EQ(call(&agent, library(0)), 3);
}

TEST_F(AgentLibraries, TwelfthLibraryClosesTheFirst) {
    Agent agent;
    for (int i = 0; i < 11; i++)
        call(&agent, library(i));
    EXPECT_THAT(open_copies(agent), ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10));
    call(&agent, library(11));
    EXPECT_THAT(open_copies(agent), ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11));
}

TEST_F(AgentLibraries, ClosedLibraryIsOpenedAnew) {
    Agent agent;
    EXPECT_EQ(call(&agent, library(0)), 1);
    EXPECT_EQ(call(&agent, library(0)), 2);
    for (int i = 1; i < 12; i++)
        call(&agent, library(i));
    EXPECT_EQ(call(&agent, library(0)), 1);
}

TEST_F(AgentLibraries, UseBehindTheHotZoneSavesALibraryFromBeingClosed) {
    Agent agent;
    for (int i = 0; i < 11; i++)
        call(&agent, library(i));
    EXPECT_EQ(call(&agent, library(0)), 2); // the last: moves to the front
    call(&agent, library(11));
    EXPECT_THAT(open_copies(agent), ElementsAre(0, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11));
}

TEST_F(AgentLibraries, UseInTheHotZoneDoesNotSaveALibrary) {
    Agent agent({.configuration = "DL_CACHE_HOT_ZONE_CNT=100\n"});
    for (int i = 0; i < 11; i++)
        call(&agent, library(i));
    EXPECT_EQ(call(&agent, library(0)), 2);
    call(&agent, library(11));
    EXPECT_THAT(open_copies(agent), ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11));
}

TEST_F(AgentLibraries, SpellingsOfAPathAreLibrariesOfTheirOwn) {
    Agent agent;
    EXPECT_EQ(call(&agent, library(0)), 1);
    // The loader knows that it is one file: both entries share it, and its count.
    EXPECT_EQ(call(&agent, "/" + library(0)), 2);
    for (int i = 1; i < 11; i++)
        call(&agent, library(i));
    // The first spelling was evicted; the second one still holds the file open.
    EXPECT_EQ(call(&agent, "/" + library(0)), 3);
    EXPECT_EQ(call(&agent, library(0)), 4);
}

TEST_F(AgentLibraries, ConfiguredCacheHoldsOneMoreThanItsSize) {
    Agent agent({.configuration = "MAX_DL_CACHE_CNT=15\n"});
    for (int i = 0; i < 20; i++)
        call(&agent, library(i));
    EXPECT_EQ(open_copies(agent).size(), 16u);
    EXPECT_EQ(open_copies(agent).front(), 4);
}

} // namespace
