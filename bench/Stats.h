// Timing and summaries for the benchmark: samples in microseconds, medians, percentiles and
// per-round paired ratios (a ratio taken inside one round cancels drift between rounds).
#pragma once

#include <string>
#include <vector>

namespace orvanebench {

// Microseconds since an arbitrary start, from QueryPerformanceCounter.
double nowMicros();

// Nearest-rank percentile (0-100) of the samples; 0 when there are none.
double percentile(std::vector<double> samples, double percent);
inline double median(const std::vector<double>& samples) { return percentile(samples, 50); }

// Median over rounds of numerator[i] / denominator[i].
double pairedRatio(const std::vector<double>& numerator, const std::vector<double>& denominator);

// One line of the result table.
struct Row {
    std::string variant;
    double medianMicros = 0;
    double p99Micros = -1;  // negative: not shown
    double ratio = -1;      // negative: no reference
    std::string ratioOf;    // what the ratio compares
};

void printTable(const std::string& title, const std::vector<Row>& rows);

}  // namespace orvanebench
