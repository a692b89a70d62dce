// How much memory does an idle agent keep to itself? The pages that no other process maps, of an
// agent that has said that it is ready; beside a program that does nothing but say so. One agent
// runs, so even what agents would share (the library's code) counts.

#include <benchmark/benchmark.h>

#include "child.h"

namespace {

constexpr int kStarts = 21;

const AgentHome home;

void idle(benchmark::State &state, const char *program, const std::vector<std::string> &arguments) {
    for (auto _ : state) {
        const Child child(program, arguments);
        child.await_ready();
        child.await_idle();
        state.counters["KiB"] = static_cast<double>(
            child.kibibytes("smaps_rollup", {"Private_Clean:", "Private_Dirty:"}));
    }
}

void agent(benchmark::State &state) {
    idle(state, AGENT_PROGRAM, {"--fd", Child::kSocketText});
}
BENCHMARK(agent)->Name("private memory, idle/zdepa")->Iterations(1)->Repetitions(kStarts);

void nothing(benchmark::State &state) {
    idle(state, READY_PEER_PROGRAM, {Child::kSocketText});
}
BENCHMARK(nothing)
    ->Name("private memory, idle/do-nothing program")
    ->Iterations(1)
    ->Repetitions(kStarts);

} // namespace
