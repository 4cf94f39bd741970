// Start and stop of the process.
#include <regex.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "e2e/harness.h"

namespace {

using lifecycle_test = e2e_test;

TEST_F(lifecycle_test, a_start_without_a_proper_configuration_ends_with_its_code) {
    const std::string cloud_part = R"({"cloud":{"domain":"127.0.0.1","port":)";
    const struct {
        std::vector<std::string> arguments;
        std::string configuration;
        std::string log;
    } cases[] = {
        {{"-x"}, "", "\t-c <path>\t the configure path."},
        {{}, "", "fail to open the configure file, error=2, path=config.cfg"},
        {{"-c", "/tmp/none.cfg"}, "", "fail to open the configure file, error=2, path="},
        {{"-c", "/tmp/bad.cfg"}, "{", "fail to parse the configure"},
        {{"-c", "/tmp/bad.cfg"}, "[]", "node \"cloud\" does not exist"},
        {{"-c", "/tmp/bad.cfg"}, cloud_part + "1}}", "node \"default\" does not exist"},
        {{"-c", "/tmp/bad.cfg"},
         cloud_part +
             R"(65536},"default":{"cer_file":"c","heartbeat_interval_ms":1,"request_timeout_ms":1,)"
             R"("max_message_number":1,"max_client_number":1}})",
         "cloud.port is out of range, port=65536"},
    };
    ASSERT_EQ(chdir("/tmp"), 0);
    for (const auto& item : cases) {
        SCOPED_TRACE(item.log);
        daemon_t started;
        std::ofstream("/tmp/bad.cfg") << item.configuration;
        started.launch(item.arguments);
        EXPECT_EQ(started.await_exit(), 255);
        EXPECT_TRUE(started.await_log(item.log));
        EXPECT_NE(access("/tmp/cloud_svr", F_OK), 0);
    }
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
    start();
    ASSERT_TRUE(connected());
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
    regex_t line;
    ASSERT_EQ(
        regcomp(&line,
                "^[0-9]{4}(-[0-9]{2}){2} ([0-9]{2}:){2}[0-9]{2}\\.[0-9]{3} \\| "
                "(ERROR| WARN| INFO|DEBUG) \\| [0-9]+:0x[0-9A-F]+ \\| "
                "(\\.\\./\\.\\./cloud-mod/util/)?[a-z_]+\\.c:[0-9]+ \\| [a-z_]+ \\| - |^kit heard ",
                REG_EXTENDED | REG_NOSUB),
        0);
    for (const std::string& text : lines) {
        EXPECT_EQ(regexec(&line, text.c_str(), 0, nullptr, 0), 0) << text;
    }
    regfree(&line);
}

TEST_F(lifecycle_test, sigterm_during_the_start_stops_it_once_it_is_up) {
    configure({.kit = "slow"});
    daemon.launch({"-c", "/tmp/config.cfg"});
    ASSERT_TRUE(daemon.await_log("begin to initialize the API..."));
    daemon.stop();
    EXPECT_TRUE(daemon.await_log("receive SIGTERM"));
    EXPECT_TRUE(daemon.await_log("stop..."));
}

struct stop_case_t {
    const char* name;
    settings_t settings;
    sim_behaviour_t behaviour;
    std::function<bool(e2e_test*)> arrive;
};

void PrintTo(const stop_case_t& item, std::ostream* out) {
    *out << item.name;
}

struct stop_test : e2e_test, testing::WithParamInterface<stop_case_t> {};

TEST_P(stop_test, is_quick) {
    const stop_case_t& item = GetParam();
    start(item.settings, item.behaviour);
    ASSERT_TRUE(item.arrive(this));
    daemon.stop();
}

bool await_method(e2e_test* test, const char* hello_cloud, const char* method) {
    client_t& client = test->clients.emplace_back();
    client.post("register_callback", hello_cloud);
    return !client.await_method(method).empty();
}

bool await_sent(e2e_test* test, int requests, const std::string& params) {
    client_t& client = test->clients.emplace_back();
    const std::string text = R"({"method":"x","params":)" + quoted(params) + "}";
    for (int i = 0; i < requests; ++i) {
        client.post("device_request", request_params(text));
    }
    return test->daemon.await_log("IPC receive from ", static_cast<std::size_t>(requests));
}

const stop_case_t stop_cases[] = {
    {"idle", {.kit = ""}, {}, [](e2e_test*) { return true; }},
    {"without_a_common_function", {.kit = "none"}, {}, [](e2e_test*) { return true; }},
    {"connected", {}, {}, [](e2e_test* test) { return test->connected(); }},
    {"backing_off",
     {},
     {.hello = sim_hello_t::error, .hello_value = 5},
     [](e2e_test* test) { return test->daemon.await_log("next time to reconnect is 1000 ms"); }},
    {"waiting_out_an_ordered_delay",
     {},
     {.hello = sim_hello_t::stop, .hello_value = 1000000},
     [](e2e_test* test) { return test->daemon.await_log("time to reconnect is 1000000000 ms"); }},
    {"tls_unanswered",
     {},
     {.answer_tls = false},
     [](e2e_test* test) { return sim_wait_connections(test->cloud.get(), 1, wait_ms()); }},
    {"hello_unanswered",
     {},
     {.hello = sim_hello_t::silent},
     [](e2e_test* test) { return test->daemon.await_log("client send: "); }},
    {"client_owes_the_hello",
     {.kit = ""},
     {},
     [](e2e_test* test) {
         return await_method(test, R"({"hello_cloud":1})", "request_of_hello_cloud");
     }},
    {"client_owes_an_answer",
     {.kit = ""},
     {},
     [](e2e_test* test) { return await_method(test, R"({"hello_cloud":0})", "cloud_request"); }},
    {"requests_unanswered",
     {},
     {.requests = sim_kind_t::hold},
     [](e2e_test* test) { return test->connected() && await_sent(test, 3, "x"); }},
    {"no_message_id_left",
     {.messages = 1},
     {.requests = sim_kind_t::hold},
     [](e2e_test* test) { return test->connected() && await_sent(test, 3, "x"); }},
    {"cloud_reads_nothing",
     {},
     {.after_handshake = {{sim_kind_t::stop_reading, {}}}},
     [](e2e_test* test) {
         return test->connected() && await_sent(test, 150, std::string(60000, 'x'));
     }},
    {"half_a_frame_on_both_links",
     {},
     {.after_handshake = {{sim_kind_t::stall, R"({"method":"x","id":1})"}}},
     [](e2e_test* test) {
         return test->connected() && test->clients.emplace_back().send_raw(local_header(100));
     }},
};

INSTANTIATE_TEST_SUITE_P(, stop_test, testing::ValuesIn(stop_cases),
                         [](const auto& item) { return item.param.name; });

}  // namespace
