// Runs the benchmarks of a program: pinned to one processor and, where that is allowed, ahead of
// all other programs; all in one process, their repetitions interleaved at random. Reports medians
// and ratios.
//
// A benchmark is named "question/peer". Of each question, the peers whose names begin with "zdep"
// are ours; the table has a column for each of them: its figure divided by the line's. The figure
// is time (of the processor, or of the clock where the benchmark says so), or the counter "KiB" of
// a benchmark that sets one.

#include <benchmark/benchmark.h>
#include <sched.h>
#include <stdio.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace {

struct Measured {
    int64_t order; // of the source file: runs come in at random
    std::string peer;
    double median;
};

struct Question {
    const char *unit;
    std::vector<Measured> lines;
};

bool is_ours(const std::string &peer) {
    return peer.rfind("zdep", 0) == 0;
}

class RatioReporter : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context &) override { return true; }

    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            if (run.error_occurred) {
                fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(),
                        run.error_message.c_str());
                failed_ = true;
            }
            if (run.run_type != Run::RT_Aggregate || run.aggregate_name != "median")
                continue;
            const std::string &name = run.run_name.function_name;
            const size_t slash = name.find('/');
            Question &question = questions_[name.substr(0, slash)];
            question.unit = run.counters.count(kMemoryCounter) != 0 ? "KiB" : "ns";
            question.lines.push_back({run.family_index, name.substr(slash + 1), figure(run)});
        }
    }

    void Finalize() override {
        for (auto &[name, question] : questions_) {
            std::sort(
                question.lines.begin(), question.lines.end(),
                [](const Measured &one, const Measured &other) { return one.order < other.order; });
            print(name, question);
        }
    }

    bool failed() const { return failed_; }

  private:
    static constexpr char kMemoryCounter[] = "KiB";

    static double figure(const Run &run) {
        const auto memory = run.counters.find(kMemoryCounter);
        if (memory != run.counters.end())
            return memory->second;
        return run.run_name.time_type.empty() ? run.GetAdjustedCPUTime()
                                              : run.GetAdjustedRealTime();
    }

    static void print(const std::string &name, const Question &question) {
        printf("%s\n  %-34s %8s %3s", name.c_str(), "", "median", question.unit);
        std::vector<Measured> ours;
        for (const Measured &line : question.lines)
            if (is_ours(line.peer))
                ours.push_back(line);
        for (const Measured &own : ours)
            printf("  %20s", own.peer.c_str());
        printf("\n");
        for (const Measured &line : question.lines) {
            printf("  %-34s %12.1f", line.peer.c_str(), line.median);
            for (const Measured &own : ours)
                printf("  %19.2fx", own.median / line.median);
            printf("\n");
        }
    }

    std::map<std::string, Question> questions_;
    bool failed_ = false;
};

// The processor that we are on; where pinning is not allowed, the figures are only noisier.
void pin() {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(sched_getcpu(), &set);
    if (sched_setaffinity(0, sizeof set, &set) != 0)
        perror("bench: not pinned to a processor");
}

// Children inherit it. Without it whoever takes longer is interrupted more often, and a ratio of
// two times by the clock grows with the load of the machine.
void run_ahead_of_others() {
    sched_param lowest = {};
    lowest.sched_priority = sched_get_priority_min(SCHED_FIFO);
    if (sched_setscheduler(0, SCHED_FIFO, &lowest) != 0)
        perror("bench: figures hold on an idle machine only: not run ahead of other programs");
}

} // namespace

int main(int argc, char **argv) {
    std::vector<std::string> defaults = {"--benchmark_repetitions=21", "--benchmark_min_time=0.2",
                                         "--benchmark_enable_random_interleaving=true"};
    std::vector<char *> arguments = {argv[0]};
    for (std::string &flag : defaults)
        arguments.push_back(flag.data());
    arguments.insert(arguments.end(), argv + 1, argv + argc); // the later of two flags holds
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data()))
        return 2;
    pin();
    run_ahead_of_others();
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return reporter.failed() ? 1 : 0;
}
