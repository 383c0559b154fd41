#include "bench/Stats.h"

#include <windows.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace orvanebench {

double nowMicros() {
    static const double ticksPerMicro = [] {
        LARGE_INTEGER frequency;
        QueryPerformanceFrequency(&frequency);
        return static_cast<double>(frequency.QuadPart) / 1e6;
    }();
    LARGE_INTEGER counter;
    QueryPerformanceCounter(&counter);
    return static_cast<double>(counter.QuadPart) / ticksPerMicro;
}

double percentile(std::vector<double> samples, double percent) {
    if (samples.empty()) return 0;
    std::sort(samples.begin(), samples.end());
    if (percent == 50) {
        size_t middle = samples.size() / 2;
        return samples.size() % 2 ? samples[middle] : (samples[middle - 1] + samples[middle]) / 2;
    }
    size_t rank = static_cast<size_t>(std::ceil(percent / 100 * static_cast<double>(samples.size())));
    return samples[std::min(samples.size(), std::max<size_t>(rank, 1)) - 1];
}

double pairedRatio(const std::vector<double>& numerator, const std::vector<double>& denominator) {
    std::vector<double> ratios;
    for (size_t i = 0; i < numerator.size() && i < denominator.size(); ++i)
        if (denominator[i] > 0) ratios.push_back(numerator[i] / denominator[i]);
    return median(ratios);
}

void printTable(const std::string& title, const std::vector<Row>& rows) {
    std::printf("\n%s\n", title.c_str());
    // "\xC2\xB5" is the micro sign in UTF-8; Wine hands the bytes to the terminal unchanged.
    std::printf("  %-50s %12s %12s %8s  %s\n", "variant", "median \xC2\xB5s", "p99 \xC2\xB5s", "ratio", "ratio is");
    for (const Row& row : rows) {
        char p99[32] = "", ratio[32] = "";
        if (row.p99Micros >= 0) std::snprintf(p99, sizeof p99, "%.1f", row.p99Micros);
        if (row.ratio >= 0) std::snprintf(ratio, sizeof ratio, "%.3f", row.ratio);
        std::printf("  %-50s %12.1f %12s %8s  %s\n", row.variant.c_str(), row.medianMicros, p99, ratio,
                    row.ratioOf.c_str());
    }
    std::fflush(stdout);
}

}  // namespace orvanebench
