// A short whole life of the daemon under the shim (shim.c).
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>

#include <atomic>
#include <climits>
#include <memory>

#include "e2e/harness.h"

inline constexpr char echo[] = R"({"method":"echo"})";
inline constexpr char lost[] = R"({"method":"lost"})";  // the cloud never answers it

// As the shim has it.
struct page_t {
    std::atomic_uint calls, failed, first, last;
};

inline bool answered(client_t* client, const std::string& method,
                     const std::string& params = "{}") {
    const std::string answer = client->await_answer(client->post(method, params), 2500);
    return number_at(answer, "inner_error_code") == 0;
}

// Whether the request of that text ends with what is expected.
inline bool asks(client_t* client, const char* text, const char* expected) {
    const int timeout_ms = text == lost ? 0 : -1;
    const std::string params = request_params(text, timeout_ms, 1);
    const std::string answer = client->await_answer(client->post("device_request", params), 2500);
    const std::int64_t id = number_at(answer, "inner_result.id");
    return id > 0 && client->response(id, 2500).find(expected) != std::string::npos;
}

inline bool cloud_asks(sim_t* cloud, client_t* agent) {
    const std::uint64_t before = sim_stats(cloud).answers;
    sim_post(cloud, sim_newest, R"({"method":"getStatus","params":{}})");
    (void)agent->send(willing_agent(agent->await_method("cloud_request", 2500)));
    return sim_wait_stats(
        cloud, [=](const auto& now) { return now.answers > before; }, 2500);
}

// A request's time-out, and the heartbeat that the same look at the clock sends.
inline bool times_out(sim_t* cloud, client_t* client) {
    const std::uint64_t before = sim_stats(cloud).heartbeats;
    return asks(client, lost, "-20002") &&
           sim_wait_stats(
               cloud, [=](const auto& now) { return now.heartbeats > before; }, 2500);
}

struct life_t {
    sim_t* cloud;
    page_t* page;
    bool registered = false;
    daemon_t daemon{};

    void launch(const std::string& call, int error, unsigned first, bool on) {
        page->calls = page->failed = 0;
        fail(first, on);
        setenv("SHIM", (call + " " + std::to_string(error)).c_str(), 1);
        daemon.launch({"-c", "/tmp/config.cfg"});
    }

    // That call fails; with `on`, all that follow it do, too.
    void fail(unsigned first, bool on) const {
        page->last = on ? UINT_MAX : first;
        page->first = first;
    }

    void recover() const { fail(UINT_MAX, false); }

    // Everything that a daemon does; false where that ends early.
    bool pass(client_t* agent) {
        agent->agent = willing_agent;
        if (agent->await_method("server_notify", 2500).empty()) {
            return false;
        }
        registered = answered(agent, "register_callback", R"({"hello_cloud":0})");
        return registered && asks(agent, echo, R"("error_code":0)") && cloud_asks(cloud, agent) &&
               answered(agent, "register_callback", R"({"hello_cloud":1})") &&
               answered(agent, "reconnect_cloud") &&
               !agent->await_method("response_of_hello_cloud", 2500).empty() &&
               times_out(cloud, agent);
    }

    // With its agent there, the daemon is connected, or soon will be by itself.
    bool comes_back(client_t* agent) {
        for (const std::int64_t deadline = now_ms() + 30000; now_ms() < deadline;) {
            if (daemon.count_log("begin to receive from") > daemon.count_log("end to receive f")) {
                return true;
            }
            (void)agent->await_method("none", 20);
        }
        return false;
    }

    bool serves_another() {
        for (const std::int64_t deadline = now_ms() + 30000; now_ms() < deadline;) {
            client_t client;
            client.agent = willing_agent;
            (void)client.post("register_callback", R"({"hello_cloud":0})");
            if (asks(&client, echo, R"("error_code":0)") && asks(&client, lost, "-20002")) {
                return true;
            }
            usleep(20000);
        }
        return false;
    }

    // What went wrong; empty: all is well.
    std::string live() {
        if (!daemon.await_log("server start...", 1, 20000)) {
            const int code = daemon.await_exit(20000);
            const bool documented = code >= 253 && code <= 255 && page->failed > 0;
            return documented ? "" : "ended at start with " + std::to_string(code);
        }
        auto agent = std::make_unique<client_t>();
        const bool passed = pass(agent.get());
        recover();
        if (!passed && registered && !comes_back(agent.get())) {
            return "did not come back by itself";
        }
        agent.reset();
        if (!passed && !serves_another()) {
            return "serves nobody afterwards";
        }
        kill(daemon.pid, SIGTERM);
        const int code = daemon.await_exit(20000);
        return code == 0 ? "" : "ended with " + std::to_string(code);
    }

    std::string log_end() {
        std::string text;
        const std::vector<std::string> lines = daemon.log();
        for (std::size_t i = 0; i < lines.size(); ++i) {
            const bool shown = i + 60 > lines.size() || lines[i].find("[0x") != std::string::npos;
            text += shown ? "\n  " + lines[i].substr(0, 200) : "";
        }
        return text;
    }
};

struct faults_test : e2e_test {
    void prepare() {
        const char* const options = getenv("ASAN_OPTIONS");
        const std::string runner =
            "env LD_PRELOAD=" SHIM " SHIM_PAGE=/tmp/shim_page ASAN_OPTIONS=" +
            std::string(options != nullptr ? options : "") + ":verify_asan_link_order=0";
        setenv("CLOUD_SVR_RUNNER", runner.c_str(), 1);
        const int fd = open("/tmp/shim_page", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_EQ(ftruncate(fd, sizeof(page_t)), 0);
        page = static_cast<page_t*>(
            mmap(nullptr, sizeof(page_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        close(fd);
        sim_behaviour_t behaviour;
        behaviour.on_request = [](const sim_request_t& request) {
            return sim_step_t{request.method == "lost" ? sim_kind_t::drop : sim_kind_t::echo};
        };
        configure({.heartbeat_ms = 100, .timeout_ms = 700, .kit = ""}, behaviour);
    }

    page_t* page = nullptr;
};
