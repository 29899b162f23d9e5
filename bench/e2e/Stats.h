// Figures of the end-to-end benchmarks: percentiles and their report, both
// human-readable and as "RESULT <name> <value> <unit>" lines for the summary.
// Main thread of each harness only.
#pragma once

#include <stdio.h>

#include <algorithm>
#include <string>
#include <vector>

namespace bench {

inline double Ms(long long ns) {
    return double(ns) / 1e6;
}

inline void Result(const std::string& name, double value, const char* unit) {
    printf("RESULT %s %.3f %s\n", name.c_str(), value, unit);
}

// Nearest-rank percentile of values in milliseconds.
inline double Percentile(std::vector<double> values, double p) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    size_t rank = size_t(p / 100.0 * double(values.size()) + 0.999999);
    rank = std::min(std::max(rank, size_t(1)), values.size());
    return values[rank - 1];
}

inline void ReportDistribution(const std::string& name, const std::string& what,
                               const std::vector<double>& ms) {
    double sum = 0;
    for (double v : ms) {
        sum += v;
    }
    const double mean = ms.empty() ? 0 : sum / double(ms.size());
    printf("   %-44s n=%zu  p50 %7.2f  p90 %7.2f  p99 %7.2f  max %7.2f  mean %7.2f ms\n",
           what.c_str(), ms.size(), Percentile(ms, 50), Percentile(ms, 90), Percentile(ms, 99),
           Percentile(ms, 100), mean);
    Result(name + ".p50", Percentile(ms, 50), "ms");
    Result(name + ".p99", Percentile(ms, 99), "ms");
    Result(name + ".mean", mean, "ms");
    Result(name + ".max", Percentile(ms, 100), "ms");
}

} // namespace bench
