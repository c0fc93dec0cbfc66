// SPDX-License-Identifier: MIT
// Reports what a piece of the library costs as a multiple of a named peer that was measured
// in the same run, interleaved with it. Bare times of a machine say nothing about another.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace bench
{

struct Comparison {
    std::string subject;
    std::string peer;
    double limit; // the ratio of medians must not be above it; 0: for information
};

// What is compared. PROCESSOR leaves out other work on the machine, and also the work and the
// time of commands that a benchmark starts: those need ELAPSED.
enum class Time { PROCESSOR, ELAPSED };

// Collects the medians of a run's repetitions; everything else stays quiet.
class MedianReporter : public benchmark::BenchmarkReporter
{
public:
    explicit MedianReporter(Time time) : time_(time) {}

    bool ReportContext(const Context & /*context*/) override { return true; }
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs)
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median")
                medians_[run.run_name.function_name +
                         (run.run_name.args.empty() ? "" : "/" + run.run_name.args)] =
                    time_ == Time::PROCESSOR ? run.GetAdjustedCPUTime() : run.GetAdjustedRealTime();
    }

    // Prints the table; false when a limit was missed or a name is unknown.
    bool compare(const std::vector<Comparison> &comparisons)
    {
        bool ok = true;
        std::printf("| measured | against | ratio | limit |\n|---|---|---|---|\n");
        for (const Comparison &c : comparisons) {
            const double ratio = medians_[c.subject] / medians_[c.peer];
            const bool held = ratio > 0 && (c.limit == 0 || ratio <= c.limit);
            char limit[16] = "";
            if (c.limit != 0)
                (void)std::snprintf(limit, sizeof limit, "%.2f", c.limit);
            std::printf("| %s | %s | %.3f | %s%s |\n", c.subject.c_str(), c.peer.c_str(), ratio, limit,
                        held ? "" : " MISSED");
            ok = ok && held;
        }
        return ok;
    }

private:
    Time time_;
    std::map<std::string, double> medians_;
};

// The main() of a benchmark program: runs all benchmarks interleaved, prints the comparisons
// as a Markdown table, and ends with 0 only when all limits held.
inline int run_comparisons(const std::vector<Comparison> &comparisons, int repetitions = 15,
                           double seconds = 0.1, Time compared = Time::PROCESSOR)
{
    std::string repeat = "--benchmark_repetitions=" + std::to_string(repetitions);
    std::string time = "--benchmark_min_time=" + std::to_string(seconds);
    char name[] = "bench";
    char interleave[] = "--benchmark_enable_random_interleaving=true";
    char *arguments[] = {name, repeat.data(), time.data(), interleave, nullptr};
    int count = 4;
    benchmark::Initialize(&count, arguments);
    MedianReporter reporter(compared);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return reporter.compare(comparisons) ? 0 : 1;
}

} // namespace bench
