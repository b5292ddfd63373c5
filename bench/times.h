// What every benchmark here has in common: it prints what Google Benchmark
// prints, keeps the time of each repetition, and ends with lines "bar NAME
// VALUE" that compare the medians of two runs. Repetitions are interleaved, so
// that a change of the machine's speed meets both sides.
#pragma once

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace vvl::bench
{

class Times : public benchmark::ConsoleReporter
{
  public:
    Times() : ConsoleReporter(OO_None) {} // plain text, so that the last lines stay readable for machines

    void ReportRuns(const std::vector<Run> &runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
                times_[run.run_name.function_name].push_back(run.GetAdjustedRealTime());
            }
        }
    }

    // Median time of one benchmark in its unit, or 0 where it did not run.
    double median(const std::string &name) const
    {
        const auto found = times_.find(name);
        if (found == times_.end()) {
            return 0;
        }
        std::vector<double> sorted = found->second;
        std::sort(sorted.begin(), sorted.end());
        return sorted[sorted.size() / 2];
    }

    // Median over median, or 0 where one of them did not run.
    double ratio(const std::string &name, const std::string &peer) const
    {
        const double peer_time = median(peer);
        return peer_time > 0 ? median(name) / peer_time : 0;
    }

  private:
    std::map<std::string, std::vector<double>> times_;
};

// One line for machines; none for a comparison that was filtered out.
inline void print_bar(const std::string &name, double value)
{
    if (value > 0) {
        std::printf("bar %s %.3f\n", name.c_str(), value);
    }
}

// Runs all registered benchmarks, repeated and interleaved; the command line
// can overrule both. False for bad arguments.
inline bool run_all(Times &times, int argc, char **argv)
{
    std::string defaults[] = {"--benchmark_repetitions=9", "--benchmark_min_time=0.05",
                              "--benchmark_enable_random_interleaving=true"};
    std::vector<char *> arguments{argv[0]};
    for (std::string &text : defaults) {
        arguments.push_back(text.data());
    }
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return false;
    }
    benchmark::RunSpecifiedBenchmarks(&times);
    return true;
}

} // namespace vvl::bench
