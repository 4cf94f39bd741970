// Times and processor time, and one line of JSON about a run.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

std::int64_t now_ns();  // monotonic

// The processor time of the processes since their start, threads that have ended included.
std::int64_t cpu_ns(const std::vector<pid_t>& processes);

struct run_t {
    std::vector<std::int64_t> latencies_ns;
    std::int64_t elapsed_ns = 0;
    std::int64_t cpu_ns = 0;  // of the gateway
};

// Prints requests, rps, p50, p90, p99 (us) and cpu (us per request) as a line of JSON.
void run_print(run_t* run);
