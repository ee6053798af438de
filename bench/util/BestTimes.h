#pragma once
// A console reporter that also keeps the best real time per iteration of each benchmark (single
// runs, or the medians when only aggregates are reported), for the ratios the benches print.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <limits>
#include <map>
#include <string>
#include <vector>

namespace benchutil {

class BestTimes : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            const bool usable = run.run_type == Run::RT_Iteration || run.aggregate_name == "median";
            if (!usable || run.error_occurred) continue;
            auto [it, added] = best_.emplace(run.run_name.function_name, std::numeric_limits<double>::max());
            it->second = std::min(it->second, run.GetAdjustedRealTime());
        }
    }
    // The best time of `name`, or a negative number when it did not run.
    double best(const std::string& name) const {
        const auto it = best_.find(name);
        return it == best_.end() ? -1.0 : it->second;
    }

private:
    std::map<std::string, double> best_;
};

// The main of a bench whose benchmarks share one Setup: made before they run and reachable
// through `global` while they do. False for unrecognised arguments (reported).
template <class Setup>
bool runWithSetup(int& argc, char** argv, Setup*& global, BestTimes& reporter) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return false;
    Setup setup;
    global = &setup;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    global = nullptr;
    return true;
}

}  // namespace benchutil
