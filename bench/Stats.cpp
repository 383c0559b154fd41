#include "bench/Stats.h"

#include <windows.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

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

void runRounds(std::vector<Variant>& variants, int rounds) {
    for (Variant& variant : variants) variant.samples.reserve(static_cast<size_t>(rounds));
    size_t count = variants.size();
    for (int round = 0; round < rounds; ++round) {
        for (size_t step = 0; step < count; ++step) {
            Variant& variant = variants[(static_cast<size_t>(round) + step) % count];
            if (variant.before) variant.before();
            double start = nowMicros();
            bool ok = variant.run();
            double elapsed = nowMicros() - start;
            if (!ok) die(variant.name + " (round " + std::to_string(round) + ")", GetLastError());
            if (variant.after) variant.after();
            variant.samples.push_back(elapsed);
        }
    }
}

Variant* find(std::vector<Variant>& variants, const std::string& name) {
    for (Variant& variant : variants)
        if (variant.name == name) return &variant;
    die("no variant " + name, 0);
}

Row row(std::vector<Variant>& variants, const std::string& name, const std::string& display,
        const std::string& numerator, const std::string& denominator, const std::string& ratioOf) {
    Variant* self = find(variants, name);
    Row result;
    result.variant = display;
    result.medianMicros = median(self->samples);
    result.p99Micros = percentile(self->samples, 99);
    if (!denominator.empty()) {
        result.ratio = pairedRatio(find(variants, numerator.empty() ? name : numerator)->samples,
                                   find(variants, denominator)->samples);
        result.ratioOf = ratioOf;
    }
    return result;
}

void die(const std::string& what, unsigned long code) {
    std::fprintf(stderr, "orvane-bench: %s failed (0x%08lX)\n", what.c_str(), code);
    std::exit(1);
}

void printTargets(const std::string& title, const std::vector<Target>& targets) {
    std::printf("\n%s\n", title.c_str());
    std::printf("  %-66s %10s %12s  %s\n", "figure", "measured", "target", "");
    for (const Target& target : targets) {
        bool met = target.atLeast ? target.value >= target.limit : target.value <= target.limit;
        const char* precision = target.unit == "x" ? "%.3f" : "%.1f";
        char value[32], limit[32];
        std::snprintf(value, sizeof value, precision, target.value);
        std::snprintf(limit, sizeof limit, precision, target.limit);
        std::string unit = target.unit == "us" ? " \xC2\xB5s" : " " + target.unit;
        std::printf("  %-66s %10s %12s  %s\n", target.figure.c_str(), (value + unit).c_str(),
                    ((target.atLeast ? ">= " : "<= ") + std::string(limit) + unit).c_str(), met ? "met" : "MISSED");
    }
    std::fflush(stdout);
}

void writeTargets(const std::string& file, const std::vector<Target>& targets) {
    FILE* out = std::fopen(file.c_str(), "w");
    if (out == nullptr) die("writing " + file, 0);
    for (const Target& target : targets)
        std::fprintf(out, "%.6f\t%.6f\t%s\t%d\t%s\n", target.value, target.limit, target.unit.c_str(),
                     target.atLeast ? 1 : 0, target.figure.c_str());
    std::fclose(out);
}

std::vector<Target> readTargets(const std::string& file) {
    std::vector<Target> targets;
    FILE* in = std::fopen(file.c_str(), "r");
    if (in == nullptr) return targets;
    char line[512];
    while (std::fgets(line, sizeof line, in)) {
        Target target;
        char unit[16] = {}, figure[400] = {};
        int atLeast = 0;
        if (std::sscanf(line, "%lf\t%lf\t%15[^\t]\t%d\t%399[^\n]", &target.value, &target.limit, unit, &atLeast,
                        figure) != 5)
            continue;
        target.unit = unit;
        target.atLeast = atLeast != 0;
        target.figure = figure;
        targets.push_back(target);
    }
    std::fclose(in);
    return targets;
}

std::string formatMicros(double micros) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f \xC2\xB5s", micros);
    return text;
}

double serverRoundTripMicros() {
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    if (event == nullptr) die("CreateEvent", GetLastError());
    std::vector<double> samples;
    for (int i = 0; i < 2000; ++i) {
        double start = nowMicros();
        WaitForSingleObject(event, 0);
        samples.push_back(nowMicros() - start);
    }
    CloseHandle(event);
    return median(samples);
}

}  // namespace orvanebench
