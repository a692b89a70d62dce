// How much memory does an idle agent keep to itself? The pages that no other process maps, of an
// agent that has said that it is ready; beside a program that does nothing but say so. A second
// process of the same program stands by, as agents do by the thousand: pages of files that all of
// them map belong to none of them. What a process alone on the machine maps is shown as well; how
// much of a file the kernel then maps around each page that was touched is the kernel's affair.

#include <benchmark/benchmark.h>

#include <deque>

#include "child.h"

namespace {

constexpr int kStarts = 21;

const AgentHome home;

void idle(benchmark::State &state, const char *program, const std::vector<std::string> &arguments,
          size_t others) {
    for (auto _ : state) {
        std::deque<Child> standing_by;
        while (standing_by.size() < others)
            standing_by.emplace_back(program, arguments).await_ready();
        const Child child(program, arguments);
        child.await_ready();
        child.await_idle();
        state.counters["KiB"] = static_cast<double>(
            child.kibibytes("smaps_rollup", {"Private_Clean:", "Private_Dirty:"}));
    }
}

void agent(benchmark::State &state, size_t others) {
    idle(state, AGENT_PROGRAM, {"--fd", Child::kSocketText}, others);
}
BENCHMARK_CAPTURE(agent, , 1)
    ->Name("private memory, idle/zdepa")
    ->Iterations(1)
    ->Repetitions(kStarts);
BENCHMARK_CAPTURE(agent, , 0)
    ->Name("private memory, idle/zdepa, alone")
    ->Iterations(1)
    ->Repetitions(kStarts);

void nothing(benchmark::State &state, size_t others) {
    idle(state, READY_PEER_PROGRAM, {Child::kSocketText}, others);
}
BENCHMARK_CAPTURE(nothing, , 1)
    ->Name("private memory, idle/do-nothing program")
    ->Iterations(1)
    ->Repetitions(kStarts);
BENCHMARK_CAPTURE(nothing, , 0)
    ->Name("private memory, idle/do-nothing program, alone")
    ->Iterations(1)
    ->Repetitions(kStarts);

} // namespace
