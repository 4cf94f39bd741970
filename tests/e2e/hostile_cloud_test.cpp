// A cloud that misbehaves: local clients are served meanwhile, and it works afterwards.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "e2e/harness.h"

namespace {

using hostile_cloud_test = case_test;

TEST_P(hostile_cloud_test, is_survived) {
    connect(GetParam().settings, GetParam().behaviour);
    client_t peer;
    GetParam().run(this);
    EXPECT_EQ(peer.call("anything"), -20103);
}

// Without a new connection.
bool still_works(e2e_test* test) {
    return test->works() && sim_stats(test->cloud.get()).connections == 1;
}

void local_works() {
    EXPECT_EQ(client_t().call("anything"), -20103);
}

std::function<void(e2e_test*)> step(sim_kind_t kind, const std::string& text = "") {
    return [=](e2e_test* test) {
        EXPECT_TRUE(sim_do(test->cloud.get(), sim_newest, {kind, text}));
        EXPECT_TRUE(test->works());
    };
}

void post_events(e2e_test* test, const std::string& event, const std::string& member,
                 const std::vector<std::string>& values) {
    for (const std::string& value : values) {
        std::string text = R"({"method":"notifyEvent","params":{"event":")";
        text.append(event).append(R"(","attribute":{")").append(member).append("\":");
        sim_post(test->cloud.get(), sim_newest, text.append(value).append("}}}"));
    }
    EXPECT_TRUE(test->daemon.await_log("deal_with_cloud_notify_event | - " + event));
}

void send_away_again(e2e_test* test) {
    post_events(test, "stopConnect", "reconnectTime", {"1", "1", "1"});
    EXPECT_TRUE(test->works());
}

// For minutes at least: all that is left to see is that it stops in time.
void send_away_for_long(e2e_test* test) {
    post_events(test, "stopConnect", "reconnectTime", {"1e300", "0", "-5", "\"x\""});
}

void change_the_heartbeat(e2e_test* test) {
    post_events(test, "heartBeatInterval", "interval", {"1e300", "2147483647", "0.1", "-1"});
    EXPECT_TRUE(still_works(test));
}

void refuse_tcp(e2e_test* test) {
    sim_unlisten(test->cloud.get());
    sim_close(test->cloud.get(), sim_newest, sim_kind_t::reset);
    EXPECT_TRUE(test->daemon.await_log("next time to reconnect is 1000 ms"));
    local_works();
    EXPECT_TRUE(sim_relisten(test->cloud.get()));
    EXPECT_TRUE(test->works());
}

void say_nothing(e2e_test* test) {
    test->behave([](sim_behaviour_t* behaviour) { behaviour->answer_tls = false; });
    sim_close(test->cloud.get(), sim_newest, sim_kind_t::reset);
    EXPECT_TRUE(sim_wait_connections(test->cloud.get(), 2, wait_ms()));
    local_works();
    test->behave([](sim_behaviour_t* behaviour) { behaviour->answer_tls = true; });
    sim_close(test->cloud.get(), sim_newest, sim_kind_t::reset);
    EXPECT_TRUE(test->works());
}

// Another server in the cloud's place, which answers a connection with these bytes and then waits.
void answer_in_plain(e2e_test* test, const std::string& bytes) {
    sim_unlisten(test->cloud.get());
    sockaddr_in address = {
        AF_INET, htons(sim_port(test->cloud.get())), {htonl(INADDR_LOOPBACK)}, {}};
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    listen(listener, 1);
    sim_close(test->cloud.get(), sim_newest, sim_kind_t::reset);
    const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    EXPECT_EQ(send(connection, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    local_works();
    close(connection);
    close(listener);
    EXPECT_TRUE(sim_relisten(test->cloud.get()));
    EXPECT_TRUE(test->works());
}

void answer_half_a_hello(e2e_test* test) {
    answer_in_plain(test, std::string("\x16\x03\x03\x00\x7A\x02", 6));
}

void answer_without_tls(e2e_test* test) {
    answer_in_plain(test, "HTTP/1.1 400 Bad Request\r\n\r\n");
}

void read_nothing(e2e_test* test) {
    sim_do(test->cloud.get(), sim_newest, {sim_kind_t::stop_reading, ""});
    client_t& client = test->clients.emplace_back();
    const std::string request = R"({"method":"x","params":")" + std::string(60000, 'x') + "\"}";
    for (int i = 0; i < 120; ++i) {
        client.post("device_request", request_params(request));
    }
    EXPECT_TRUE(test->daemon.await_log("IPC receive from ", 120));
    local_works();
    EXPECT_EQ(client_t().call("reconnect_cloud"), 0);
    EXPECT_TRUE(test->works());
}

void send_wrong_json(e2e_test* test) {
    const std::string deep = std::string(900, '[') + std::string(900, ']');
    for (const std::string& text :
         {std::string(), std::string("5"), std::string("[]"), std::string("null"), std::string("{"),
          std::string("\"id\""), std::string("{}"), std::string(16000, '['), std::string(9, '\0'),
          std::string(R"({"method":"quick"})"), std::string(R"({"id":"x"})"),
          std::string(R"({"id":null,"method":5})"), std::string(R"({"id":1e300,"method":"quick"})"),
          std::string(R"({"id":-1,"method":["quick"]})"), std::string(R"({"id":1,"method":null})"),
          R"({"id":1,"method":"quick","params":)" + deep + "}",
          R"({"id":1,"error_code":)" + deep + "}",
          std::string(R"({"id":1,"method":"notifyEvent","params":[]})"),
          std::string(R"({"id":1,"method":"notifyEvent","params":{"event":{}}})")}) {
        EXPECT_TRUE(sim_send(test->cloud.get(), sim_newest, text));
    }
    EXPECT_TRUE(still_works(test));
}

// Each request is answered once, whatever else comes.
void answer_too_much(e2e_test* test) {
    client_t client;
    const std::int64_t id = client.request(R"({"method":"x","params":1})", wait_ms()).id;
    for (const std::int64_t other : {INT64_C(0), INT64_C(-1), id + 1, INT64_C(1000), INT64_C(1001),
                                     static_cast<std::int64_t>(INT32_MAX), INT64_MAX}) {
        sim_send(test->cloud.get(), sim_newest,
                 R"({"error_code":0,"id":)" + std::to_string(other) + "}");
    }
    EXPECT_TRUE(test->daemon.await_log("the message is out of range", 5));
    sim_release(test->cloud.get());
    EXPECT_EQ(client.response(id), R"({"error_code":0,"result":1})");
    for (int i = 0; i < 3; ++i) {
        sim_send(test->cloud.get(), sim_newest,
                 R"({"error_code":2,"id":)" + std::to_string(id) + "}");
    }
    EXPECT_TRUE(test->daemon.await_log("fail to get the data by the message id", 8));
    EXPECT_EQ(client.response(id, 50), "");
    test->behave([](sim_behaviour_t* behaviour) { behaviour->requests = sim_kind_t::echo; });
    EXPECT_TRUE(still_works(test));
}

void ask_too_much(e2e_test* test) {
    const std::uint64_t count = is_slow() ? 1000 : 10000;
    for (std::uint64_t i = 0; i < count; ++i) {
        EXPECT_GE(sim_post(test->cloud.get(), sim_newest, R"({"method":"quick"})"), 0);
    }
    const auto all = [=](const sim_stats_t& stats) { return stats.answers >= count; };
    EXPECT_TRUE(sim_wait_stats(test->cloud.get(), all, 3 * wait_ms()));
    EXPECT_TRUE(still_works(test));
}

const settings_t quick = {.heartbeat_ms = 200, .timeout_ms = is_slow() ? 2000 : 400};
const sim_behaviour_t hold = {.requests = sim_kind_t::hold};

const case_t hostile_clouds[] = {
    {"refuses_tcp", quick, {}, refuse_tcp},
    {"never_answers_tls", quick, {}, say_nothing},
    {"stalls_in_the_tls_hello", quick, {}, answer_half_a_hello},
    {"speaks_no_tls", quick, {}, answer_without_tls},
    {"stalls_in_the_magic", quick, {}, step(sim_kind_t::raw, "\xA1")},
    {"stalls_before_the_length", quick, {}, step(sim_kind_t::raw, "\xA1\xB2")},
    {"stalls_in_the_length", quick, {}, step(sim_kind_t::raw, {"\xA1\xB2\0", 3})},
    {"stalls_in_the_body", quick, {}, step(sim_kind_t::stall, R"({"method":"x","id":1})")},
    {"reads_nothing", quick, {}, read_nothing},
    {"closes", quick, {}, step(sim_kind_t::close)},
    {"closes_tcp", quick, {}, step(sim_kind_t::close_tcp)},
    {"resets", quick, {}, step(sim_kind_t::reset)},
    {"sends_garbage", quick, {}, step(sim_kind_t::raw, std::string(5000, 'x'))},
    {"sends_wrong_json", {}, {}, send_wrong_json},
    {"answers_too_much", {}, hold, answer_too_much},
    {"asks_too_much", {}, {}, ask_too_much},
    {"sends_it_away_again_and_again", quick, {}, send_away_again},
    {"sends_it_away_for_long", quick, {}, send_away_for_long},
    {"changes_the_heartbeat_to_extremes", {}, {}, change_the_heartbeat},
};

INSTANTIATE_TEST_SUITE_P(, hostile_cloud_test, testing::ValuesIn(hostile_clouds), case_name);

}  // namespace
