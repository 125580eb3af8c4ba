// Google Benchmark reporter that turns each run into the suite's one-line JSON
// result: the run's "rate" counter is the figure.
#pragma once

#include <benchmark/benchmark.h>

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

}  // namespace bench
