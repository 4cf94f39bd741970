// Start and stop of the process.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "e2e/harness.h"

namespace {

using lifecycle_test = e2e_test;

TEST_F(lifecycle_test, a_start_without_a_configuration_ends_with_its_code) {
    daemon.launch({"-c", "/tmp/none.cfg"});
    EXPECT_EQ(daemon.await_exit(), 255);
    EXPECT_TRUE(daemon.await_log("fail to load the configure"));
    EXPECT_NE(access("/tmp/cloud_svr", F_OK), 0);
}

TEST_F(lifecycle_test, without_its_socket_it_ends_with_its_code) {
    configure();
    mkdir("/tmp/cloud_svr", 0700);
    daemon.launch({"-c", "/tmp/config.cfg"});
    EXPECT_EQ(daemon.await_exit(), 254);
    EXPECT_TRUE(daemon.await_log("fail to initialize a unix server"));
    rmdir("/tmp/cloud_svr");
}

TEST_F(lifecycle_test, a_whole_life_is_logged_in_order_and_leaves_no_socket) {
    std::ofstream("/tmp/cloud_svr") << "left by an earlier run";
    connect();
    // Descriptor 0 was closed at the start; no client and no connection may get that number.
    char target[64] = {};
    EXPECT_GT(readlink(("/proc/" + std::to_string(daemon.pid) + "/fd/0").c_str(), target, 63), 0);
    EXPECT_STREQ(target, "/dev/null");
    EXPECT_TRUE(client_t().echo("here"));
    kill(daemon.pid, SIGINT);
    kill(daemon.pid, SIGPIPE);
    EXPECT_TRUE(client_t().echo("still here"));
    daemon.stop();
    EXPECT_NE(access("/tmp/cloud_svr", F_OK), 0);
    std::size_t at = 0;
    const std::vector<std::string> lines = daemon.log();
    for (const char* text :
         {"main | - start...", "begin to load the configure...", "end to load the configure...",
          "begin to initialize the server...", "begin to initialize the API...",
          "end to initialize the server...", "wait for the work", "on_stop | - receive SIGTERM",
          "begin to destroy the server...", "begin to destroy the API...",
          "begin to destroy the ssl_socket_t...", "begin to destroy the message id pool...",
          "unload the cloud-kit.so", "end to destroy the API...", "end to destroy the server...",
          "begin to free the configure...", "main | - stop..."}) {
        while (at < lines.size() && lines[at].find(text) == std::string::npos) {
            ++at;
        }
        EXPECT_LT(at, lines.size()) << text;
    }
}

TEST_F(lifecycle_test, sigterm_during_the_start_stops_it_once_it_is_up) {
    configure({.kit = "slow"});
    daemon.launch({"-c", "/tmp/config.cfg"});
    ASSERT_TRUE(daemon.await_log("begin to initialize the API..."));
    daemon.stop();
    EXPECT_TRUE(daemon.await_log("receive SIGTERM"));
    EXPECT_TRUE(daemon.await_log("stop..."));
}

using stop_test = case_test;

TEST_P(stop_test, is_quick) {
    start(GetParam().settings, GetParam().behaviour);
    GetParam().run(this);
    daemon.stop();
}

std::function<void(e2e_test*)> await_log(const char* text) {
    return [=](e2e_test* test) { EXPECT_TRUE(test->daemon.await_log(text)); };
}

std::function<void(e2e_test*)> await_method(const char* hello_cloud, const char* method) {
    return [=](e2e_test* test) {
        client_t& client = test->clients.emplace_back();
        client.post("register_callback", hello_cloud);
        EXPECT_NE(client.await_method(method), "");
    };
}

std::function<void(e2e_test*)> await_received(std::size_t requests, std::size_t length) {
    return [=](e2e_test* test) {
        EXPECT_TRUE(test->connected());
        client_t& client = test->clients.emplace_back();
        const std::string params = quoted(std::string(length, 'x'));
        for (std::size_t i = 0; i < requests; ++i) {
            client.post("device_request",
                        request_params(R"({"method":"x","params":)" + params + "}"));
        }
        EXPECT_TRUE(test->daemon.await_log("IPC receive from ", requests));
    };
}

void connect_and_stall(e2e_test* test) {
    EXPECT_TRUE(test->connected());
    EXPECT_TRUE(test->clients.emplace_back().send_raw(local_header(100)));
}

const sim_behaviour_t hold = {.requests = sim_kind_t::hold};
const sim_behaviour_t away = {.hello = sim_hello_t::stop, .hello_value = 1000000};
const sim_behaviour_t deaf = {.after_handshake = {{sim_kind_t::stop_reading, {}}}};
const sim_behaviour_t stall = {.after_handshake = {{sim_kind_t::stall, R"({"method":"x"})"}}};

const case_t stop_cases[] = {
    {"idle", {.kit = ""}, {}, [](e2e_test*) {}},
    {"without_a_function", {.kit = "none"}, {}, [](e2e_test*) {}},
    {"connected", {}, {}, [](e2e_test* test) { EXPECT_TRUE(test->connected()); }},
    {"backing_off", {}, {.hello = sim_hello_t::wrong_id}, await_log("next time to reconnect is")},
    {"waiting_out_a_delay", {}, away, await_log("time to reconnect is 1000000000 ms")},
    {"tls_unanswered", {}, {.answer_tls = false}, await_log("begin to connect the ssl_socket_t")},
    {"hello_unanswered", {}, {.hello = sim_hello_t::silent}, await_log("client send: ")},
    {"client_owes_the_hello",
     {.kit = ""},
     {},
     await_method(R"({"hello_cloud":1})", "request_of_hello_cloud")},
    {"client_owes_an_answer",
     {.kit = ""},
     {},
     await_method(R"({"hello_cloud":0})", "cloud_request")},
    {"requests_unanswered", {}, hold, await_received(3, 1)},
    {"no_message_id_left", {.messages = 1}, hold, await_received(3, 1)},
    {"cloud_reads_nothing", {}, deaf, await_received(150, 60000)},
    {"half_a_frame_on_both_links", {}, stall, connect_and_stall},
};

INSTANTIATE_TEST_SUITE_P(, stop_test, testing::ValuesIn(stop_cases), case_name);

}  // namespace
