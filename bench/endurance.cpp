// Does an agent stay the size that it is? Serves a long run of successful calls of mixed kinds,
// then calls that fail, and prints resident memory and open descriptors along the way.
//
// usage: endurance [SUCCESSFUL-CALLS [FAILING-CALLS-OF-EACH-KIND]]

#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "child.h"
#include "request.h"

namespace {

constexpr int kWarmUp = 1000;

struct Kind {
    const char *name;
    std::vector<char> bytes;
    bool succeeds;
};

struct Size {
    int64_t resident;
    int descriptors;
};

std::vector<Kind> successful_kinds() {
    std::vector<Argument> doubles;
    for (int i = 0; i < 9; i++)
        doubles.push_back(double_argument(i));
    return {
        {"five ints", Request("five_ints", kReturnsInt, five_int_arguments()).wire(), true},
        {"nine doubles", Request("nine_doubles", kReturnsDouble, doubles).wire(), true},
        {"text in and out",
         Request("greet", kReturnsNothing, {text_argument("world"), out_text_argument(100)}).wire(),
         true},
        {"with context",
         Request("repeat", kReturnsText, {text_argument("abc"), int_argument(100)}, Context::with)
             .wire(),
         true},
    };
}

std::vector<Kind> failing_kinds() {
    std::vector<char> unknown_type = Request("five_ints", kReturnsInt, five_int_arguments()).wire();
    unknown_type[3] = 75;
    unknown_type.resize(ZDMSG_HDR_SIZE);
    memset(unknown_type.data() + 4, 0, ZDMSG_HDR_SIZE - 4);
    unknown_type[7] = 8; // an empty string
    unknown_type.resize(ZDMSG_HDR_SIZE + 8, 0);
    return {
        {"refused by the routine", Request("refuse", kReturnsNothing, {}, Context::with).wire(),
         false},
        {"no such function", Request("no_such_function", kReturnsNothing, {}).wire(), false},
        {"no such library",
         Request("five_ints", kReturnsInt, five_int_arguments(), Context::without,
                 "/no/such/library.so")
             .wire(),
         false},
        {"not a call", unknown_type, false},
    };
}

uint32_t word_at(const std::vector<char> &bytes, size_t offset) {
    uint32_t word;
    memcpy(&word, bytes.data() + offset, sizeof word);
    return ntohl(word);
}

// A reply's body is: output text, error stack, values. The output text is empty, in 8 bytes.
bool is_success(const std::vector<char> &body) {
    return word_at(body, 8) == 0;
}

void call(int fd, const Kind &kind) {
    send_all(fd, kind.bytes.data(), kind.bytes.size());
    std::vector<char> reply(ZDMSG_HDR_SIZE);
    receive_all(fd, reply.data(), reply.size());
    reply.resize(word_at(reply, 4));
    receive_all(fd, reply.data(), reply.size());
    if (is_success(reply) != kind.succeeds) {
        fprintf(stderr, "endurance: %s: %s\n", kind.name,
                kind.succeeds ? "the call failed" : "the call succeeded");
        exit(1);
    }
}

Size size_of(const Child &agent) {
    agent.await_idle();
    return {agent.kibibytes("smaps_rollup", {"Rss:"}), agent.open_descriptors()};
}

void call_many(const Child &agent, const std::vector<Kind> &kinds, int count) {
    for (int i = 0; i < count; i++)
        call(agent.socket(), kinds[static_cast<size_t>(i) % kinds.size()]);
}

void print(const char *when, const Size &size) {
    printf("%-44s %7ld KiB  %3d descriptors\n", when, static_cast<long>(size.resident),
           size.descriptors);
}

void run_successful(const Child &agent, int count) {
    const std::vector<Kind> kinds = successful_kinds();
    print("ready", size_of(agent));
    call_many(agent, kinds, kWarmUp);
    const Size early = size_of(agent);
    call_many(agent, kinds, count - kWarmUp);
    const Size late = size_of(agent);
    char when[100];
    snprintf(when, sizeof when, "after %d successful calls", kWarmUp);
    print(when, early);
    snprintf(when, sizeof when, "after %d successful calls", count);
    print(when, late);
    printf("growth in between: %ld KiB, %d descriptors\n",
           static_cast<long>(late.resident - early.resident), late.descriptors - early.descriptors);
}

void run_failing(const Child &agent, int count) {
    for (const Kind &kind : failing_kinds()) {
        call_many(agent, {kind}, kWarmUp);
        const Size early = size_of(agent);
        call_many(agent, {kind}, count);
        const Size late = size_of(agent);
        printf("a failing call, %-27s %+8.0f bytes  %+d descriptors in %d\n", kind.name,
               static_cast<double>(late.resident - early.resident) * 1024 / count,
               late.descriptors - early.descriptors, count);
    }
}

} // namespace

int main(int argc, char **argv) {
    const int successful = argc > 1 ? atoi(argv[1]) : 100000;
    const int failing = argc > 2 ? atoi(argv[2]) : 2000;
    if (successful <= kWarmUp || failing <= 0) {
        fprintf(stderr, "usage: endurance [SUCCESSFUL-CALLS [FAILING-CALLS-OF-EACH-KIND]]\n");
        return 2;
    }
    const AgentHome home;
    const Child agent(AGENT_PROGRAM, {"--fd", Child::kSocketText});
    agent.await_ready();
    run_successful(agent, successful);
    run_failing(agent, failing);
    return 0;
}
