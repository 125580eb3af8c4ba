// Google Benchmark reporter that turns each run into the suite's one-line JSON
// result: the run's "rate" counter is the figure.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>

#include "common/BenchUtil.h"

namespace bench {

class OneLineReporter : public benchmark::BenchmarkReporter {
public:
    OneLineReporter(Result& result, std::string unit) : m_Result(result), m_Unit(std::move(unit)) {}
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) {
                m_Exit = m_Result.Fail(run.error_message);
                continue;
            }
            auto rate = run.counters.find("rate");
            if (rate == run.counters.end()) {
                m_Exit = m_Result.Fail("no rate counter");
                continue;
            }
            m_Result.Extra("seconds", run.GetAdjustedRealTime() / 1e9 * run.iterations);
            m_Exit = m_Result.Print(rate->second.value, m_Unit);
        }
    }
    int ExitCode() const { return m_Exit; }

private:
    Result& m_Result;
    std::string m_Unit;
    int m_Exit = 1;
};

// Runs `runOnce` (whole runs of `items` items; it answers their wall seconds,
// or a negative number when they did not finish) under Google Benchmark with
// manual time, repeated until they add up to `minSeconds` (0: one run), and
// prints the one-line result with items per second in `unit`. `failure` is
// the message of a run that did not finish. Answers the exit code.
inline int RunRateBenchmark(Result& result, const std::string& name, double minSeconds, uint64_t items,
                            const std::string& unit, const std::string& failure,
                            const std::function<double()>& runOnce) {
    benchmark::internal::Benchmark* run =
        benchmark::RegisterBenchmark(name.c_str(), [&](benchmark::State& state) {
            double total = 0;
            for (auto _ : state) {
                const double seconds = runOnce();
                if (seconds < 0) {
                    state.SkipWithError(failure.c_str());
                    break;
                }
                state.SetIterationTime(seconds);
                total += seconds;
            }
            if (total > 0)
                state.counters["rate"] =
                    static_cast<double>(items) * static_cast<double>(state.iterations()) / total;
        });
    if (minSeconds > 0) {
        run->MinTime(minSeconds)->UseManualTime();
    } else {
        run->Iterations(1)->UseManualTime();
    }
    OneLineReporter reporter(result, unit);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return reporter.ExitCode();
}

}  // namespace bench
