// What does one request to an agent process cost? A call with five ints, over a socket pair, with
// client and agent on one processor; beside a process that only reads and writes as many bytes. The
// client does as little as it can, so that what is compared is the other side.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <string.h>

#include "child.h"
#include "request.h"

namespace {

constexpr int kBatch = 100;      // requests in a row to one peer: short against a time slice
constexpr int kBatches = 401;    // of each, in random order
constexpr size_t kLastValue = 8; // a reply ends with its last value and four zero bytes

const AgentHome home;

std::vector<char> exchange(int fd, const std::vector<char> &request) {
    send_all(fd, request.data(), request.size());
    std::vector<char> reply(ZDMSG_HDR_SIZE);
    receive_all(fd, reply.data(), reply.size());
    uint32_t body_size;
    memcpy(&body_size, reply.data() + 4, sizeof body_size);
    reply.resize(ZDMSG_HDR_SIZE + ntohl(body_size));
    receive_all(fd, reply.data() + ZDMSG_HDR_SIZE, reply.size() - ZDMSG_HDR_SIZE);
    return reply;
}

bool is_result(const std::vector<char> &reply) {
    int32_t value;
    memcpy(&value, reply.data() + reply.size() - kLastValue, sizeof value);
    return value == kFiveIntsResult;
}

const std::vector<char> &request_bytes() {
    static const std::vector<char> bytes =
        Request("five_ints", kReturnsInt, five_int_arguments()).wire();
    return bytes;
}

int agent_socket() {
    static const Child agent(AGENT_PROGRAM, {"--fd", Child::kSocketText});
    static const bool ready = (agent.await_ready(), true);
    (void)ready;
    return agent.socket();
}

const std::vector<char> &reply_bytes() {
    static const std::vector<char> bytes = exchange(agent_socket(), request_bytes());
    return bytes;
}

int echo_socket() {
    static const Child echo(ECHO_PEER_PROGRAM,
                            {Child::kSocketText, std::to_string(reply_bytes().size())});
    return echo.socket();
}

void exchange_batch(benchmark::State &state, int fd) {
    const std::vector<char> &request = request_bytes();
    std::vector<char> reply(reply_bytes().size());
    for (auto _ : state) {
        send_all(fd, request.data(), request.size());
        receive_all(fd, reply.data(), reply.size());
    }
    if (fd == agent_socket() && !is_result(reply))
        state.SkipWithError("wrong reply");
}

void agent(benchmark::State &state) {
    exchange_batch(state, agent_socket());
}
BENCHMARK(agent)
    ->Name("request over a socket pair/zdepa")
    ->Iterations(kBatch)
    ->Repetitions(kBatches)
    ->UseRealTime();

void echo(benchmark::State &state) {
    exchange_batch(state, echo_socket());
}
BENCHMARK(echo)
    ->Name("request over a socket pair/echo process")
    ->Iterations(kBatch)
    ->Repetitions(kBatches)
    ->UseRealTime();

} // namespace
