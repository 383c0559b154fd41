// Timing and summaries for the benchmark: samples in microseconds, medians, percentiles and
// per-round paired ratios (a ratio taken inside one round cancels drift between rounds).
#pragma once

#include <functional>
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

// One way of doing the measured operation, with its samples.
struct Variant {
    std::string name;
    std::function<bool()> run;
    std::function<void()> before;  // untimed set-up, e.g. the log level
    std::function<void()> after;
    std::vector<double> samples;
};

// Every round runs each variant once; the starting variant moves on each round, so slow drift
// of the machine hits all variants alike. A failing run ends the program.
void runRounds(std::vector<Variant>& variants, int rounds);
Variant* find(std::vector<Variant>& variants, const std::string& name);
// The variant's median and p99; with a denominator, the median of per-round ratios of
// numerator (default: the variant itself) to denominator.
Row row(std::vector<Variant>& variants, const std::string& name, const std::string& display,
        const std::string& numerator = "", const std::string& denominator = "", const std::string& ratioOf = "");

[[noreturn]] void die(const std::string& what, unsigned long code);

// A figure against the target for it: met when value <= limit (or >= with atLeast).
struct Target {
    std::string figure;
    double value = 0;
    double limit = 0;
    std::string unit;  // "x" for ratios, "us" for microseconds, "ms"
    bool atLeast = false;
};

void printTargets(const std::string& title, const std::vector<Target>& targets);
// Figures handed from one benchmark program to the next, one per line.
void writeTargets(const std::string& file, const std::vector<Target>& targets);
std::vector<Target> readTargets(const std::string& file);
std::string formatMicros(double micros);

// The cost of one wineserver round trip on this machine now (median of many), for the tables.
double serverRoundTripMicros();

}  // namespace orvanebench
