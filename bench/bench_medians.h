#ifndef ORVANE_BENCH_BENCH_MEDIANS_H
#define ORVANE_BENCH_BENCH_MEDIANS_H

// File-system timings on a shared machine are noisy: these programs run
// repetitions of all benchmarks interleaved at random and compare medians.

#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace benchutil {

// Console output as usual, plus the median (or the one run) of each
// benchmark in nanoseconds per operation, by function name.
class MedianReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            if (r.run_type == Run::RT_Iteration && r.iterations > 0 && !nsPerOp.count(r.run_name.function_name))
                nsPerOp[r.run_name.function_name] = r.GetAdjustedRealTime();
            if (r.run_type == Run::RT_Aggregate && r.aggregate_name == "median")
                nsPerOp[r.run_name.function_name] = r.GetAdjustedRealTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> nsPerOp;
};

// benchmark::Initialize with 9 interleaved repetitions reported as
// aggregates; flags given on the command line come later and win.
inline void initializeInterleavedMedians(int argc, char** argv) {
    std::vector<char*> args{argv[0], const_cast<char*>("--benchmark_repetitions=9"),
                            const_cast<char*>("--benchmark_enable_random_interleaving=true"),
                            const_cast<char*>("--benchmark_report_aggregates_only=true")};
    args.insert(args.end(), argv + 1, argv + argc);
    int count = static_cast<int>(args.size());
    args.push_back(nullptr);
    benchmark::Initialize(&count, args.data());
}

}  // namespace benchutil

#endif
