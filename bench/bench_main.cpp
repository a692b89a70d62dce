// Runs the benchmarks of a program: pinned to one processor, all in one process, their repetitions
// interleaved at random, and reports medians and ratios.
//
// A benchmark is named "question/peer". Of each question, the peers whose names begin with "zdepl"
// are ours; the table has a column for each of them: its time divided by the line's.

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
    double median; // nanoseconds of processor time an iteration
};

bool is_ours(const std::string &peer) {
    return peer.rfind("zdepl", 0) == 0;
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
            const std::string question = name.substr(0, slash);
            questions_[question].push_back(
                {run.family_index, name.substr(slash + 1), run.GetAdjustedCPUTime()});
        }
    }

    void Finalize() override {
        for (auto &[question, lines] : questions_) {
            std::sort(lines.begin(), lines.end(), [](const Measured &one, const Measured &other) {
                return one.order < other.order;
            });
            print(question, lines);
        }
    }

    bool failed() const { return failed_; }

  private:
    static void print(const std::string &question, const std::vector<Measured> &lines) {
        printf("%s\n  %-34s %12s", question.c_str(), "", "median ns");
        std::vector<Measured> ours;
        for (const Measured &line : lines)
            if (is_ours(line.peer))
                ours.push_back(line);
        for (const Measured &own : ours)
            printf("  %20s", own.peer.c_str());
        printf("\n");
        for (const Measured &line : lines) {
            printf("  %-34s %12.1f", line.peer.c_str(), line.median);
            for (const Measured &own : ours)
                printf("  %19.2fx", own.median / line.median);
            printf("\n");
        }
    }

    std::map<std::string, std::vector<Measured>> questions_;
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
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return reporter.failed() ? 1 : 0;
}
