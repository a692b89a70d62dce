// What many requests leave behind in one agent: memory and open descriptors. ZDEPA_LONG_TEST in
// the environment makes the runs five times as long.

#include <stdlib.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <filesystem>
#include <sstream>

#include "agent.h"

namespace {

using namespace agent_test;

constexpr int kSettling = 1000; // requests after which nothing grows any more

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

int scale() {
    return getenv("ZDEPA_LONG_TEST") != nullptr ? 5 : 1;
}

// Bytes that are the process's own: neither libraries nor files.
long private_bytes(const Agent &agent) {
    std::istringstream statm(file_text("/proc/" + std::to_string(agent.pid()) + "/statm"));
    long size, resident, shared;
    statm >> size >> resident >> shared;
    return (resident - shared) * sysconf(_SC_PAGESIZE);
}

long open_descriptors(const Agent &agent) {
    const std::filesystem::directory_iterator entries("/proc/" + std::to_string(agent.pid()) +
                                                      "/fd");
    return std::distance(begin(entries), end(entries));
}

class AgentEndurance : public testing::Test {
  protected:
    void SetUp() override {
        if (kSanitized)
            GTEST_SKIP() << "under a sanitizer resident memory is the sanitizer's own";
    }
};

// One call of each kind, in turn.
std::vector<Call> mixed_calls() {
    std::vector<Param> many(40, int_param(1));
    return {
        {ROUTINES_LIBRARY, "returns_seven", int_return(), {}, 0},
        {ROUTINES_LIBRARY, "add", int_return(), {int_param(1), int_param(2)}, 0},
        {ROUTINES_LIBRARY, "halve", flag(kByValue, 0, kBinDouble, kDouble), {double_param(5)}, 0},
        {ROUTINES_LIBRARY, "say_hello", kNoReturn, {text_param("", 100)}, 0},
        {ROUTINES_LIBRARY, "return_raw", reference_return(kRaw), {}, 0},
        {ROUTINES_LIBRARY,
         "with_context_text",
         reference_return(kString),
         {text_param("inner")},
         kWithContext},
        {AGENT_ROUTINES, "do_nothing", kNoReturn, many, kWithContext},
        {AGENT_ROUTINES, "do_nothing", kNoReturn, {reference_param(kRaw, kOut, 2000, "x")}, 0},
        {AGENT_ROUTINES,
         "report_connection",
         kNoReturn,
         {long_param(1), long_param(2), int_param(1)},
         kWithContext},
        {AGENT_ROUTINES, "make_number", reference_return(kNumber), {int_param(20)}, 0},
    };
}

TEST_F(AgentEndurance, SuccessfulRequestsLeaveNothingBehind) {
    Agent agent;
    const std::vector<Call> calls = mixed_calls();
    const auto serve = [&](int requests) {
        for (int i = 0; i < requests; i++)
            ASSERT_FALSE(agent.call(calls[static_cast<size_t>(i) % calls.size()]).failed());
    };
    serve(kSettling);
    const long memory = private_bytes(agent);
    const long descriptors = open_descriptors(agent);
    const int requests = 20000 * scale();
    serve(requests);
    const long growth = private_bytes(agent) - memory;
    RecordProperty("growth_in_bytes", std::to_string(growth));
    // One word lost by each request would be 160 kB; the heap's own caches may still move by a few
    // pages.
    EXPECT_LE(growth, 96 * 1024) << "after " << requests << " requests";
    EXPECT_EQ(open_descriptors(agent), descriptors);
    EXPECT_EQ(agent.finish(), exited(0));
}

// A call that fails is not released before the process ends: its descriptor (4416 bytes) in the
// context's region, the first memory of the call's own region (4096 bytes) with the region's record
// (1040), and with a context another record. The heap and the regions add to each.
constexpr long kKeptByAFailedCall = 4416 + 4096 + 1040 + 1040 + 256;

void expect_growth_of_failures(const Call &call, int requests, long most) {
    Agent agent;
    const auto serve = [&](int count) {
        for (int i = 0; i < count; i++)
            ASSERT_TRUE(agent.call(call).failed());
    };
    serve(kSettling);
    const long memory = private_bytes(agent);
    const long descriptors = open_descriptors(agent);
    serve(requests);
    const long kept = (private_bytes(agent) - memory) / requests;
    testing::Test::RecordProperty("bytes_kept_by_a_failed_call", std::to_string(kept));
    EXPECT_LE(kept, most);
    EXPECT_EQ(open_descriptors(agent), descriptors);
    EXPECT_EQ(agent.finish(), exited(0));
}

TEST_F(AgentEndurance, RaisingCallKeepsItsDescriptorAndRegions) {
    expect_growth_of_failures(
        {ROUTINES_LIBRARY, "raise_code", kNoReturn, {int_param(20001)}, kWithContext},
        3000 * scale(), kKeptByAFailedCall);
}

TEST_F(AgentEndurance, CallOfAMissingFunctionKeepsItsDescriptorAndRegion) {
    expect_growth_of_failures({ROUTINES_LIBRARY, "no_such_routine", kNoReturn, {}, 0},
                              3000 * scale(), kKeptByAFailedCall);
}

TEST_F(AgentEndurance, RefusedRequestKeepsNothing) {
    Agent agent;
    // A body with an array: 100 elements of a number and a column of one byte.
    std::string other_type = std::string(8, 'p') + big_endian(0) + big_endian(0) + big_endian(100);
    for (int i = 0; i < 100; i++)
        other_type += big_endian(0) + std::string("\1x\0\0", 4);
    other_type = message(5, other_type);
    const auto serve = [&](int count) {
        for (int i = 0; i < count; i++) {
            agent.send(other_type);
            ASSERT_EQ(agent.receive_reply().code(), -140002);
        }
    };
    serve(kSettling);
    const long memory = private_bytes(agent);
    serve(3000 * scale());
    EXPECT_LE(private_bytes(agent) - memory, 96 * 1024);
}

TEST_F(AgentEndurance, LibrariesOpenedAndClosedLeaveNothingBehind) {
    const TemporaryDirectory copies;
    std::vector<std::string> libraries;
    for (int i = 0; i < 30; i++) {
        libraries.push_back(copies.path("copy_" + std::to_string(i) + ".so"));
        std::filesystem::copy_file(COUNTING_LIBRARY, libraries.back());
    }
    Agent agent;
    // In a circle of more than the cache holds, every call opens a library and closes another.
    const auto serve = [&](int rounds) {
        for (int round = 0; round < rounds; round++)
            for (const std::string &library : libraries)
                ASSERT_THAT(agent.call({library, "count_call", int_return(), {}, 0}).values,
                            testing::ElementsAre(bytes_of(int32_t{1})));
    };
    serve(10);
    const long memory = private_bytes(agent);
    const long descriptors = open_descriptors(agent);
    serve(50 * scale());
    // An entry of the cache lost by each of the 1500 calls would be 6 MB.
    EXPECT_LE(private_bytes(agent) - memory, 96 * 1024);
    EXPECT_EQ(open_descriptors(agent), descriptors);
}

} // namespace
