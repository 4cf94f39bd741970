#include "statistics.h"

#include <time.h>

#include <algorithm>
#include <cstdio>

namespace {

std::int64_t clock_ns(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

double quantile_us(const std::vector<std::int64_t>& sorted, double part) {
    const auto index = static_cast<std::size_t>(part * static_cast<double>(sorted.size() - 1));
    return static_cast<double>(sorted[index]) / 1e3;
}

}  // namespace

std::int64_t now_ns() {
    return clock_ns(CLOCK_MONOTONIC);
}

std::int64_t cpu_ns(const std::vector<pid_t>& processes) {
    std::int64_t sum = 0;
    for (const pid_t process : processes) {
        clockid_t clock = 0;
        sum += clock_getcpuclockid(process, &clock) == 0 ? clock_ns(clock) : 0;
    }
    return sum;
}

void run_print(run_t* run) {
    std::vector<std::int64_t>& all = run->latencies_ns;
    if (all.empty()) {
        all.push_back(0);
    }
    std::sort(all.begin(), all.end());
    const auto count = static_cast<double>(all.size());
    std::printf(
        "{\"requests\": %zu, \"rps\": %.1f, \"p50\": %.1f, \"p90\": %.1f, \"p99\": %.1f, "
        "\"cpu\": %.2f}\n",
        all.size(), count * 1e9 / static_cast<double>(std::max<std::int64_t>(run->elapsed_ns, 1)),
        quantile_us(all, 0.5), quantile_us(all, 0.9), quantile_us(all, 0.99),
        static_cast<double>(run->cpu_ns) / 1e3 / count);
    std::fflush(stdout);
}
