// How long does an agent take from exec to its readiness signal? Beside a program that does nothing
// but send that signal. An agent makes its log file before it is ready, and what a new file costs
// is the file system's affair: the figure to compare has the agent's home in memory, another shows
// what this machine's disk adds.
//
// And what does the error catalogue cost a program that links the library? The same program with a
// library of ten rows stands beside it.

#include <benchmark/benchmark.h>

#include "child.h"

namespace {

constexpr int kBatch = 4; // starts in a row of one program: short against a time slice
constexpr int kBatches = 101;

const AgentHome home_on_disk(AgentHome::Place::disk);
const AgentHome home_in_memory(AgentHome::Place::memory);

void start(benchmark::State &state, const char *program,
           const std::vector<std::string> &arguments) {
    for (auto _ : state) {
        const Child child(program, arguments);
        child.await_ready();
        state.SetIterationTime(static_cast<double>(now() - child.started()) * 1e-9);
        child.await_idle(); // what it does after the signal is not part of the next start
    }
}

void agent(benchmark::State &state) {
    home_in_memory.select();
    start(state, AGENT_PROGRAM, {"--fd", Child::kSocketText});
}
BENCHMARK(agent)
    ->Name("exec to readiness/zdepa")
    ->Iterations(kBatch)
    ->Repetitions(kBatches)
    ->UseManualTime();

void agent_on_disk(benchmark::State &state) {
    home_on_disk.select();
    start(state, AGENT_PROGRAM, {"--fd", Child::kSocketText});
}
BENCHMARK(agent_on_disk)
    ->Name("exec to readiness/zdepa, home on disk")
    ->Iterations(kBatch)
    ->Repetitions(kBatches)
    ->UseManualTime();

void nothing(benchmark::State &state) {
    start(state, READY_PEER_PROGRAM, {Child::kSocketText});
}
BENCHMARK(nothing)
    ->Name("exec to readiness/do-nothing program")
    ->Iterations(kBatch)
    ->Repetitions(kBatches)
    ->UseManualTime();

void whole_catalogue(benchmark::State &state) {
    start(state, WHOLE_CATALOGUE_PROGRAM, {Child::kSocketText});
}
BENCHMARK(whole_catalogue)
    ->Name("start with the catalogue/zdepl")
    ->Iterations(kBatch)
    ->Repetitions(kBatches)
    ->UseManualTime();

void ten_rows(benchmark::State &state) {
    start(state, TEN_ROWS_PROGRAM, {Child::kSocketText});
}
BENCHMARK(ten_rows)
    ->Name("start with the catalogue/ten rows")
    ->Iterations(kBatch)
    ->Repetitions(kBatches)
    ->UseManualTime();

} // namespace
