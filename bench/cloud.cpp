// The cloud's process.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include "cloud_sim/engine.h"
#include "statistics.h"
#include "tools.h"

namespace {

constexpr int wait_ms = 10000;

std::string request_text(std::size_t bytes) {
    const std::string head = R"({"method":"getSwitch","params":{"data":")";
    const std::size_t fixed = head.size() + 3;
    return head + std::string(bytes > fixed ? bytes - fixed : 0, 'x') + "\"}}";
}

void ask_until(sim_t* sim, const std::string& text, std::int64_t until,
               std::vector<std::int64_t>* latencies) {
    for (std::int64_t sent = now_ns(); sent < until;) {
        if (!sim_request(sim, sim_newest, text, wait_ms)) {
            std::fprintf(stderr, "cloud_bench: the device did not answer\n");
            return;
        }
        const std::int64_t now = now_ns();
        latencies->push_back(now - sent);
        sent = now;
    }
}

void ask(sim_t* sim, std::istringstream arguments) {
    int ms = 0, window = 0;
    std::size_t bytes = 0;
    arguments >> ms >> window >> bytes;
    std::vector<pid_t> gateway;
    for (pid_t process = 0; arguments >> process;) {
        gateway.push_back(process);
    }
    sim_wait_stats(
        sim, [](const sim_stats_t& stats) { return stats.open > 0; }, wait_ms);
    run_t run;
    const std::string text = request_text(bytes);
    const std::int64_t cpu = cpu_ns(gateway), start = now_ns();
    std::vector<std::vector<std::int64_t>> parts(static_cast<std::size_t>(window));
    std::vector<std::thread> threads;
    threads.reserve(parts.size());
    for (auto& part : parts) {
        threads.emplace_back(ask_until, sim, std::cref(text), start + ms * 1'000'000LL, &part);
    }
    for (std::size_t i = 0; i < threads.size(); ++i) {
        threads[i].join();
        run.latencies_ns.insert(run.latencies_ns.end(), parts[i].begin(), parts[i].end());
    }
    run.elapsed_ns = now_ns() - start;
    run.cpu_ns = cpu_ns(gateway) - cpu;
    run_print(&run);
}

void close_all(sim_t* sim) {
    for (const int device : sim_devices(sim)) {
        sim_close(sim, device);
    }
    std::puts("closed");
    std::fflush(stdout);
}

}  // namespace

int cloud_run(const std::string& certificate) {
    sim_config_t config;
    config.log_limit = 0;
    std::string error;
    const sim_handle_t sim = sim_start(std::move(config), &error);
    if (sim == nullptr) {
        std::fprintf(stderr, "cloud_bench: %s\n", error.c_str());
        return 1;
    }
    if (!certificate.empty()) {
        std::ofstream(certificate) << sim_certificate(sim.get());
    }
    std::printf("%d\n", sim_port(sim.get()));
    std::fflush(stdout);
    for (std::string line; std::getline(std::cin, line);) {
        if (line == "close") {
            close_all(sim.get());
        } else if (line.compare(0, 4, "ask ") == 0) {
            ask(sim.get(), std::istringstream(line.substr(4)));
        }
    }
    return 0;
}
