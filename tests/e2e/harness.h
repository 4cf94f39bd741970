// What the end-to-end tests stand on: a daemon process, clients on its socket, a simulated cloud.
// Waits that fail say so by their result.
#pragma once

#include <sys/resource.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "cloud_sim/engine.h"

// Under a sanitizer or a runner such as valgrind, where everything takes several times as long.
bool is_slow();
// How long an event may take before its test fails, in ms.
int wait_ms();
std::int64_t now_ms();

// The number, or the text, at the end of a path of member names such as "inner_result.id".
std::int64_t number_at(const std::string& json, const std::string& path);  // -1: none
std::string text_at(const std::string& json, const std::string& path);
// A text as a JSON string.
std::string quoted(const std::string& text);
// The start of a local frame that announces so many bytes.
std::string local_header(std::uint32_t length);

struct settings_t {
    int heartbeat_ms = 240000;
    int timeout_ms = wait_ms();
    int messages = 1000;
    int clients = 20;
    std::string kit = "full";  // full, respond, none or slow; empty: client mode
    std::string link;          // the object "link"; empty: none
};

// The daemon's process. What it prints, on both outputs, is collected line by line.
struct daemon_t {
    ~daemon_t();  // kills it if it still runs
    // Starts it with any arguments, and with descriptor 0 closed.
    void launch(const std::vector<std::string>& arguments);
    // Sends SIGTERM: it must end with code 0 within the bound that it promises.
    void stop();
    // The exit code, or 1000 + the signal that ended it; -1 when it didn't end.
    int await_exit(int timeout_ms = wait_ms());
    // Whether so many lines so far hold that text, or will before the time is over.
    bool await_log(const std::string& text, std::size_t count = 1, int timeout_ms = wait_ms());
    std::size_t count_log(const std::string& text);
    // What stands behind that text in the first line that holds it.
    std::string log_tail(const std::string& text);
    std::vector<std::string> log();
    // The number behind that name in the process's status, "VmRSS:" say, in kB.
    long status(const std::string& name) const;
    long descriptors() const;
    std::int64_t processor_ms() const;

    pid_t pid = 0;  // 0: doesn't run

 private:
    std::thread reader;
    std::mutex lock;
    std::condition_variable changed;
    std::vector<std::string> lines;
    bool ended = false;
};

struct sent_t {
    std::int64_t code;
    std::int64_t id;
};

// A connection to the daemon. Messages that nobody has asked for yet are kept.
struct client_t {
    client_t();  // connects; fd is -1 when that failed
    ~client_t();
    client_t(const client_t&) = delete;

    bool send_raw(const std::string& bytes) const;
    bool send(const std::string& text) const;
    // The first message that matches, kept or new; empty when there is none in time.
    std::string await(const std::function<bool(const std::string&)>& matches,
                      int timeout_ms = wait_ms());
    std::string receive(int timeout_ms = wait_ms());
    std::string await_method(const std::string& name, int timeout_ms = wait_ms());
    // The type in the greeting; -1 without one.
    std::int64_t greeting();
    // Whether the daemon closes the connection; what it sent before is kept.
    bool await_close();
    // Sends a request with a new "inner_id", which is returned.
    std::int64_t post(const std::string& method, const std::string& params = "{}");
    std::string await_answer(std::int64_t inner_id, int timeout_ms = wait_ms());
    // Both; the answer's code.
    std::int64_t call(const std::string& method, const std::string& params = "{}");
    sent_t request(const std::string& text, int timeout_ms = -1, int flag = 0);
    // The cloud's answer to the request of that id.
    std::string response(std::int64_t id, int timeout_ms = wait_ms());
    // Whether the cloud echoes that text; the rest as for a request.
    bool echo(const std::string& text, int timeout_ms = -1, int flag = 0);

    int fd = -1;
    // Answers what the daemon asks of a registered client; empty: leaves it unanswered.
    std::function<std::string(const std::string& message)> agent;

 private:
    std::int64_t last_id = 0;
    std::deque<std::string> kept;
};

// An agent that does what either handshake wants, and answers every request with error_code 0.
std::string willing_agent(const std::string& message);
std::string request_params(const std::string& text, int timeout_ms = -1, int flag = 0);
// The answer to a cloud_request.
std::string cloud_answer(std::int64_t id, const std::string& response);

struct e2e_test : testing::Test {
    // A cloud that behaves so, and a configuration for it; a daemon with that; both.
    void configure(const settings_t& settings = {}, const sim_behaviour_t& behaviour = {},
                   sim_config_t config = {});
    void launch();
    void start(const settings_t& settings = {}, const sim_behaviour_t& behaviour = {});
    // The same, and waits until it is connected.
    void connect(const settings_t& settings = {}, const sim_behaviour_t& behaviour = {});
    // Whether the daemon has been connected so many times.
    bool connected(std::size_t times = 1);
    // Whether requests are answered, now or after a while.
    bool works();
    void behave(const std::function<void(sim_behaviour_t*)>& change) const;
    // The daemon must end as it should. What it said is shown after a failure.
    void TearDown() override;

    sim_handle_t cloud;
    daemon_t daemon;
    std::deque<client_t> clients;
};

// One row of a table of tests: what is started, and what is done then.
struct case_t {
    const char* name;
    settings_t settings;
    sim_behaviour_t behaviour;
    std::function<void(e2e_test*)> run;
};
void PrintTo(const case_t& item, std::ostream* out);
std::string case_name(const testing::TestParamInfo<case_t>& info);
struct case_test : e2e_test, testing::WithParamInterface<case_t> {};
