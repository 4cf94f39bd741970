// A short whole life of the daemon, again and again: each time another call of a kind fails
// (shim.c), once, or from then on until the shortage is over. The environment chooses:
//   FAULTS_LIVES   at most about so many lives for a kind, spread evenly; 0: one for every call
//   FAULTS_FIRST, FAULTS_LAST   the calls to begin and to end with
//   FAULTS_SHARD, FAULTS_SHARDS   which part of them, from 0, of how many
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <memory>
#include <thread>

#include "e2e/harness.h"

namespace {

constexpr char page_path[] = "/tmp/shim_page";
constexpr int request_timeout_ms = 400;
constexpr char echo[] = R"({"method":"echo"})";
constexpr char lost[] = R"({"method":"lost"})";  // the cloud never answers it

// A failed allocation in these makes the library itself abort or crash.
struct library_t {
    const char* function;  // in the failing call's trace
    const char* reason;
};
constexpr library_t libraries[] = {
    {"none so far", ""},
};

struct fault_t {
    const char* name;
    const char* call;
    int error;
};

const fault_t kinds[] = {
    {"memory", "memory", ENOMEM},
    {"pthread_create", "pthread_create", EAGAIN},
    {"socket", "socket", EMFILE},
    {"accept_full", "accept4", EMFILE},
    {"accept_aborted", "accept4", ECONNABORTED},
    {"connect", "connect", ENETUNREACH},
    {"connect_interrupted", "connect", EINTR},
    {"select_interrupted", "select", EINTR},
    {"select_bad", "select", EBADF},
    {"poll_interrupted", "poll", EINTR},
    {"poll_memory", "poll", ENOMEM},
    {"send_interrupted", "send", EINTR},
    {"send_short", "send", 0},
    {"send_memory", "send", ENOBUFS},
    {"recv_interrupted", "recv", EINTR},
    {"recv_short", "recv", 0},
    {"recv_memory", "recv", ENOMEM},
    {"read_interrupted", "read", EINTR},
    {"read_short", "read", 0},
    {"read_reset", "read", ECONNRESET},
    {"write_interrupted", "write", EINTR},
    {"write_short", "write", 0},
    {"write_reset", "write", ECONNRESET},
    {"gethostbyname", "gethostbyname", 0},
    {"clock_gettime", "clock_gettime", EINVAL},
    {"localtime_r", "localtime_r", EOVERFLOW},
    {"eventfd", "eventfd", EMFILE},
    {"fcntl", "fcntl", EINVAL},
};

// As the shim has it.
struct page_t {
    std::atomic_uint calls, failed, lifted;
};

unsigned setting(const char* name, unsigned otherwise) {
    const char* const value = getenv(name);
    return value != nullptr ? static_cast<unsigned>(strtoul(value, nullptr, 10)) : otherwise;
}

bool answered(client_t* client, const std::string& method, const std::string& params = "{}") {
    const std::string answer = client->await_answer(client->post(method, params), 1500);
    return number_at(answer, "inner_error_code") == 0;
}

// Whether the request of that text ends with what is expected.
bool asks(client_t* client, const char* text, const char* expected) {
    const int timeout_ms = text == lost ? 0 : -1;
    const std::string params = request_params(text, timeout_ms, 1);
    const std::string answer = client->await_answer(client->post("device_request", params), 1500);
    const std::int64_t id = number_at(answer, "inner_result.id");
    return id > 0 && client->response(id, 1500).find(expected) != std::string::npos;
}

bool cloud_asks(sim_t* cloud, client_t* agent) {
    const std::uint64_t before = sim_stats(cloud).answers;
    sim_post(cloud, sim_newest, R"({"method":"getStatus","params":{}})");
    (void)agent->send(willing_agent(agent->await_method("cloud_request", 1500)));
    return sim_wait_stats(
        cloud, [=](const auto& now) { return now.answers > before; }, 1500);
}

// A request's time-out, and the heartbeat that the same look at the clock sends.
bool times_out(sim_t* cloud, client_t* client) {
    const std::uint64_t before = sim_stats(cloud).heartbeats;
    return asks(client, lost, "-20002") &&
           sim_wait_stats(
               cloud, [=](const auto& now) { return now.heartbeats > before; }, 1500);
}

struct life_t {
    sim_t* cloud;
    page_t* page;
    bool registered = false;
    daemon_t daemon{};

    void launch(const char* call, int error, unsigned first, bool on) {
        page->calls = page->failed = page->lifted = 0;
        const std::string fault = std::string(call) + " " + std::to_string(error) + " " +
                                  std::to_string(first) + (on ? " 4294967295" : " 1");
        setenv("SHIM", fault.c_str(), 1);
        daemon.launch({"-c", "/tmp/config.cfg"});
    }

    // Everything that a daemon does; false where that ends early.
    bool pass(client_t* agent) {
        agent->agent = willing_agent;
        if (agent->await_method("server_notify", 1500).empty()) {
            return false;
        }
        registered = answered(agent, "register_callback", R"({"hello_cloud":0})");
        return registered && asks(agent, echo, R"("error_code":0)") && cloud_asks(cloud, agent) &&
               answered(agent, "register_callback", R"({"hello_cloud":1})") &&
               answered(agent, "reconnect_cloud") &&
               !agent->await_method("response_of_hello_cloud", 1500).empty() &&
               times_out(cloud, agent);
    }

    // With its agent there, the daemon is connected, or soon will be by itself.
    bool comes_back(client_t* agent) {
        for (const std::int64_t deadline = now_ms() + 10000; now_ms() < deadline;) {
            if (daemon.count_log("begin to receive from") > daemon.count_log("end to receive f")) {
                return true;
            }
            (void)agent->await_method("none", 20);
        }
        return false;
    }

    bool serves_another() {
        for (const std::int64_t deadline = now_ms() + 10000; now_ms() < deadline;) {
            client_t client;
            client.agent = willing_agent;
            (void)client.post("register_callback", R"({"hello_cloud":0})");
            if (asks(&client, echo, R"("error_code":0)") && asks(&client, lost, "-20002")) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

    // What went wrong; empty: all is well.
    std::string live() {
        if (!daemon.await_log("server start...", 1, 5000)) {
            const int code = daemon.await_exit(5000);
            const bool documented = code >= 253 && code <= 255 && page->failed > 0;
            return documented ? "" : "ended at start with " + std::to_string(code);
        }
        auto agent = std::make_unique<client_t>();
        const bool passed = pass(agent.get());
        page->lifted = 1;
        if (!passed && registered && !comes_back(agent.get())) {
            return "did not come back by itself";
        }
        agent.reset();
        if (!passed && !serves_another()) {
            return "serves nobody afterwards";
        }
        kill(daemon.pid, SIGTERM);
        const int code = daemon.await_exit(5000);
        return code == 0 ? "" : "ended with " + std::to_string(code);
    }

    // Whether the call failed where its library can't stand it.
    bool is_of_library() {
        return std::any_of(std::begin(libraries), std::end(libraries), [&](const auto& library) {
            return daemon.count_log(library.function) > 0;
        });
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
        setenv("CLOUD_SVR_RUNNER", "env LD_PRELOAD=" SHIM " SHIM_PAGE=/tmp/shim_page", 1);
        const int fd = open(page_path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_EQ(ftruncate(fd, sizeof(page_t)), 0);
        page = static_cast<page_t*>(
            mmap(nullptr, sizeof(page_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        close(fd);
        sim_behaviour_t behaviour;
        behaviour.on_request = [](const sim_request_t& request) {
            return sim_step_t{request.method == "lost" ? sim_kind_t::drop : sim_kind_t::echo};
        };
        configure({.heartbeat_ms = 100, .timeout_ms = request_timeout_ms, .kit = ""}, behaviour);
    }

    page_t* page = nullptr;
};

struct each_call : faults_test, testing::WithParamInterface<std::tuple<fault_t, bool>> {};

TEST_P(each_call, may_fail) {
    prepare();
    const auto& [fault, on] = GetParam();
    life_t healthy{cloud.get(), page};
    healthy.launch(fault.call, fault.error, UINT_MAX, on);
    ASSERT_EQ(healthy.live(), "") << healthy.log_end();
    const unsigned calls = page->calls;
    const unsigned lives =
        setting("FAULTS_LIVES", 0) * (fault.call == std::string("memory") ? 5 : 1);
    const unsigned stride = lives == 0 ? 1 : std::max(calls / lives, 1U);
    const unsigned step = stride * setting("FAULTS_SHARDS", 1);
    unsigned injected = 0;
    unsigned survived = 0;
    unsigned first = setting("FAULTS_FIRST", 1) + stride * setting("FAULTS_SHARD", 0);
    for (bool reached = true; reached && first <= setting("FAULTS_LAST", UINT_MAX); first += step) {
        life_t life{cloud.get(), page};
        life.launch(fault.call, fault.error, first, on);
        const std::string wrong = life.live();
        reached = page->failed > 0;
        const bool is_well = wrong.empty() || life.is_of_library();
        injected += reached ? 1 : 0;
        survived += reached && is_well ? 1 : 0;
        EXPECT_TRUE(is_well) << "call " << first << ": " << wrong << life.log_end();
    }
    printf("faults: %u injections, %u survived\n", injected, survived);
}

INSTANTIATE_TEST_SUITE_P(, each_call, testing::Combine(testing::ValuesIn(kinds), testing::Bool()),
                         [](const auto& item) {
                             return std::get<0>(item.param).name +
                                    std::string(std::get<1>(item.param) ? "_on" : "_once");
                         });

}  // namespace
