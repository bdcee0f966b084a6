#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

// Collects one median a row instead of printing one line a statistic. A row is a benchmark, with its
// argument if it has one, on a number of threads.
class MedianReporter : public benchmark::BenchmarkReporter {
public:
    using Row = std::pair<std::string, int>;

    bool ReportContext(const Context&) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            const std::string& args = run.run_name.args;
            Median& median = medians_[{run.run_name.function_name + (args.empty() ? "" : "/" + args),
                                       static_cast<int>(run.threads)}];
            if (run.aggregate_name == "median") {
                median.ns = run.GetAdjustedRealTime();
            } else if (run.aggregate_name == "cv") {
                median.spreadPercent = 100 * run.real_accumulated_time;
            }
        }
    }

    void PrintRows(const char* title, const char* unit) const
    {
        std::printf("%-20s %8s %12s %10s\n", title, "threads", unit, "spread %");
        for (const auto& [row, median] : medians_) {
            std::printf("%-20s %8d %12.*f %10.1f\n", row.first.c_str(), row.second, median.ns < 100 ? 1 : 0, median.ns,
                        median.spreadPercent);
        }
    }

    // "-" if a filter has left one of the two out.
    std::string Ratio(const Row& row, const Row& base) const
    {
        const auto above = medians_.find(row);
        const auto below = medians_.find(base);
        if (above == medians_.end() || below == medians_.end()) {
            return "-";
        }
        char text[32];
        std::snprintf(text, sizeof(text), "%.2f", above->second.ns / below->second.ns);
        return text;
    }

private:
    struct Median {
        double ns = 0;
        double spreadPercent = 0;  // standard deviation of the repetitions over their mean
    };

    std::map<Row, Median> medians_;
};

// Runs what the command line asks for. Interleaved, so that a slow spell of the machine does not hit one
// of the rivals alone.
inline int RunBenchmarks(int argc, char** argv, benchmark::BenchmarkReporter& reporter)
{
    std::string interleave = "--benchmark_enable_random_interleaving=true";
    std::vector<char*> args = {argv[0], interleave.data()};
    args.insert(args.end(), argv + 1, argv + argc);
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data())) {
        return 2;
    }
    std::printf("Runs for 20 to 25 seconds and prints at its end.\n");
    static_cast<void>(std::fflush(stdout));
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
