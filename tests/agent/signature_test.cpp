// Calls of many signatures: through a real agent, and as plain C with the same values. What the
// routine saw, its result and its OUT values must be the same bytes.

#include "signatures.h"

#include <dlfcn.h>

#include <gmock/gmock.h>

#include <memory>

#include "agent.h"

namespace {

using namespace agent_test;

std::string text_of(const outcome_value &value) {
    return std::string(reinterpret_cast<const char *>(value.bytes),
                       static_cast<size_t>(value.length));
}

class SignatureTest : public testing::Test {
  protected:
    void SetUp() override {
        library_ = dlopen(SIGNATURE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library_, nullptr) << dlerror();
        folded_ = reinterpret_cast<uint64_t (*)()>(dlsym(library_, "folded"));
        ASSERT_NE(folded_, nullptr);
    }

    void TearDown() override {
        if (library_ != nullptr)
            dlclose(library_);
    }

    std::unique_ptr<outcome> plain_call(const signature &signature) {
        auto outcome = std::make_unique<struct outcome>();
        signature.call(dlsym(library_, signature.function), outcome.get());
        return outcome;
    }

    static Call call_of(const signature &signature) {
        Call call = {
            SIGNATURE_LIBRARY, signature.function, signature.return_flag, {}, signature.property};
        for (int i = 0; i < signature.param_cnt; i++) {
            const signature_param &param = signature.params[i];
            call.params.push_back({param.flag, param.maxlen,
                                   std::string(param.value, static_cast<size_t>(param.length))});
        }
        return call;
    }

    static void expect_same(const signature &signature, const outcome &expected,
                            const std::vector<std::string> &values) {
        const size_t results = signature.return_flag == kNoReturn ? 0 : 1;
        ASSERT_EQ(values.size(), results + static_cast<size_t>(expected.out_cnt));
        if (results == 1)
            expect_same_result(signature, expected, values[0]);
        for (int i = 0; i < expected.out_cnt; i++)
            EXPECT_EQ(values[results + static_cast<size_t>(i)], text_of(expected.out[i]))
                << "OUT value " << i;
    }

    static void expect_same_result(const signature &signature, const outcome &expected,
                                   const std::string &value) {
        const std::string known = text_of(expected.result);
        const size_t length = signature.result_length < 0
                                  ? known.size()
                                  : static_cast<size_t>(signature.result_length);
        EXPECT_EQ(value.size(), length);
        EXPECT_EQ(value.substr(0, known.size()), known);
    }

    void *library_ = nullptr;
    uint64_t (*folded_)() = nullptr;
};

TEST_F(SignatureTest, AgentCallsEveryRoutineAsPlainCDoes) {
    Agent agent;
    const Call folded = {SIGNATURE_LIBRARY, "folded", flag(kByValue, 0, kBinDouble, kUlong), {}, 0};
    for (int i = 0; i < signature_cnt; i++) {
        const signature &signature = signatures[i];
        SCOPED_TRACE(std::string(signature.function) + " with " +
                     std::to_string(signature.param_cnt) + " arguments");
        const std::unique_ptr<outcome> expected = plain_call(signature);
        const Reply reply = agent.call(call_of(signature));
        ASSERT_FALSE(reply.failed()) << reply;
        expect_same(signature, *expected, reply.values);
        EXPECT_EQ(agent.call(folded).values.at(0), bytes_of(folded_())) << "arguments differ";
        if (HasFailure())
            break;
    }
    EXPECT_EQ(agent.finish(), exited(0));
}

TEST_F(SignatureTest, PlainCallsTellOneRoutineFromAnother) {
    // The routines would be of no use as a test if their numbers did not depend on the arguments.
    std::vector<uint64_t> numbers;
    for (int i = 0; i < signature_cnt; i++) {
        plain_call(signatures[i]);
        numbers.push_back(folded_());
    }
    std::sort(numbers.begin(), numbers.end());
    EXPECT_EQ(std::adjacent_find(numbers.begin(), numbers.end()), numbers.end());
}

// --- the stack as the routine finds it
// ------------------------------------------------------------

int64_t stack_pointer(Agent *agent, const std::vector<Param> &params, int property) {
    const Reply reply = agent->call({AGENT_ROUTINES, "stack_pointer_on_entry",
                                     flag(kByValue, 0, kBinDouble, kLong), params, property});
    int64_t value = 0;
    memcpy(&value, reply.values.at(0).data(), sizeof value);
    return value;
}

TEST(AgentStack, IsAlignedForEveryNumberOfArguments) {
    Agent agent;
    for (size_t count = 0; count <= 40; count++) {
        const std::vector<Param> integers(count, int_param(1));
        const std::vector<Param> doubles(count, double_param(1));
        for (const int property : {0, kWithContext}) {
            EXPECT_EQ((stack_pointer(&agent, integers, property) + 8) % 16, 0) << count;
            EXPECT_EQ((stack_pointer(&agent, doubles, property) + 8) % 16, 0) << count;
        }
    }
}

} // namespace
