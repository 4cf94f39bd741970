// Both handshakes, by a kit and by a registered client.
#include "e2e/harness.h"

namespace {

using handshake_test = e2e_test;

using verdict_test = case_test;

TEST_P(verdict_test, is_understood) {
    start(GetParam().settings, GetParam().behaviour);
    GetParam().run(this);
    EXPECT_EQ(daemon.count_log("begin to receive from the cloud..."), 0U);
}

std::function<void(e2e_test*)> tries_again(const char* log) {
    return [=](e2e_test* test) {
        EXPECT_TRUE(test->daemon.await_log(log));
        EXPECT_TRUE(test->daemon.await_log("next time to reconnect is 1000 ms"));
    };
}

std::function<void(e2e_test*)> gives_up(const char* log) {
    return [=](e2e_test* test) {
        EXPECT_TRUE(test->daemon.await_log(log));
        EXPECT_TRUE(test->daemon.await_log("stop to reconnect"));
        EXPECT_TRUE(test->daemon.await_log("end to connect the cloud..."));
    };
}

sim_behaviour_t hello(sim_hello_t kind, int value = 0) {
    return {.hello = kind, .hello_value = value};
}

sim_behaviour_t answer(const char* text) {
    return {.hello = sim_hello_t::custom, .hello_answer = text};
}

sim_behaviour_t asked(const char* text) {
    return {.device_info = text};
}

sim_behaviour_t told(const char* params) {
    return {.verdict = std::string(R"({"method":"notifyEvent")") + params + "}"};
}

const settings_t full = {};
const settings_t respond = {.kit = "respond"};
const settings_t hasty = {.timeout_ms = 500};
const settings_t hasty_respond = {.timeout_ms = 500, .kit = "respond"};
const char type_and_stop[] = R"({"error_code":0,"result":{"stopConnect":1,"illegalType":3}})";

const case_t verdicts[] = {
    {"refused", full, hello(sim_hello_t::refuse, 2), gives_up("illegal type=2")},
    {"type_before_stop", full, answer(type_and_stop), gives_up("illegal type=3")},
    {"error_code", full, hello(sim_hello_t::error, 5), tries_again("the cloud, code=5")},
    {"other_id", full, hello(sim_hello_t::wrong_id), tries_again("the cloud, code=-20100")},
    {"no_answer", hasty, hello(sim_hello_t::silent), tries_again("the cloud, code=-3000")},
    {"no_error_code", full, answer(R"({"result":{}})"), tries_again("code=-10100")},
    {"no_result", full, answer(R"({"error_code":0})"), tries_again("code=-10100")},
    {"text", full, answer(R"({"error_code":0,"result":"x"})"), tries_again("code=-10100")},
    {"beat_error", respond, {.heartbeat_code = 7}, tries_again("the cloud, code=7")},
    {"beat_id", respond, {.heartbeat = sim_heartbeat_t::wrong_id}, tries_again("code=-20100")},
    {"no_question", hasty_respond, {.device_info = "", .verdict = ""}, tries_again("code=-3000")},
    {"no_text", respond, asked(R"({"method":[1],"id":1})"), tries_again("code=-20103")},
    {"illegal", respond, told(R"(,"params":{"event":"illegalDevice"})"),
     gives_up("\"illegalDevice\"")},
    {"event_no_text", respond, told(R"(,"params":{"event":5})"), tries_again("code=-20104")},
};

INSTANTIATE_TEST_SUITE_P(, verdict_test, testing::ValuesIn(verdicts), case_name);

TEST_F(handshake_test, a_kit_says_hello_and_hears_the_answer) {
    connect({}, answer(R"({"error_code":0,"result":{"illegalType":0,"stopConnect":1}})"));
    const auto hello = sim_wait_received(cloud.get(), "helloCloud", wait_ms());
    EXPECT_EQ(hello->text, R"({"method":"helloCloud","params":{"kit":1},"id":1})");
    EXPECT_TRUE(daemon.await_log(
        R"(kit heard {"error_code":0,"result":{"illegalType":0,"stopConnect":1}})"));
    client_t client;
    EXPECT_EQ(client.call("register_callback", R"({"hello_cloud":1})"), -3001);
    EXPECT_TRUE(client.echo("x"));
}

TEST_F(handshake_test, a_kit_without_the_hello_makes_the_default_one) {
    connect({.kit = "respond"}, {.hello = sim_hello_t::silent});
    EXPECT_EQ(sim_wait_received(cloud.get(), "", wait_ms())->text,
              R"({"error_code":0,"result":{"method":"getDeviceInfo","params":{}},"id":1})");
    EXPECT_TRUE(works());
}

TEST_F(handshake_test, a_kit_without_functions_never_connects) {
    start({.kit = "none"});
    EXPECT_TRUE(daemon.await_log("fail to the functions in the cloud-kit.so are NULL"));
    EXPECT_EQ(client_t().request(R"({"method":"x"})").code, -1000);
    EXPECT_EQ(sim_stats(cloud.get()).connections, 0U);
}

TEST_F(handshake_test, a_client_says_hello_and_hears_the_answer) {
    start({.kit = "which_is_not_there"});
    EXPECT_TRUE(daemon.await_log("fail to load the cloud-kit.so"));
    client_t client;
    EXPECT_EQ(client.request(R"({"method":"x"})").code, -1000);
    EXPECT_TRUE(daemon.await_log("there is no registered client"));
    const std::int64_t id = client.post("register_callback", R"({"hello_cloud":1})");
    EXPECT_EQ(client.await_method("request_of_hello_cloud"),
              R"({"inner_method":"request_of_hello_cloud"})");
    client.send(R"({"inner_result":{"response":"{\"method\":\"hi\",\"id\":\"mine\"}"}})");
    EXPECT_EQ(client.await_method("response_of_hello_cloud"),
              R"({"inner_method":"response_of_hello_cloud","inner_params":{"response":)" +
                  quoted(R"({"error_code":0,"result":{"illegalType":0}})") + "}}");
    EXPECT_EQ(client.await_answer(id), R"({"inner_id":2,"inner_error_code":0})");
    EXPECT_EQ(sim_wait_received(cloud.get(), "hi", 0)->text, R"({"method":"hi","id":1})");
    EXPECT_TRUE(client.echo("x"));
}

TEST_F(handshake_test, a_client_answers_the_default_one) {
    start({.kit = ""});
    client_t client;
    const std::int64_t id = client.post("register_callback", R"({"hello_cloud":0})");
    EXPECT_EQ(client.await_method("cloud_request"),
              R"({"inner_id":1,"inner_method":"cloud_request","inner_params":{"request":)" +
                  quoted(R"({"method":"getDeviceInfo","params":{}})") + "}}");
    // Sent on as it is, and then found wanting.
    client.send(cloud_answer(1, R"({"result":1})"));
    EXPECT_TRUE(daemon.await_log("fail to check the response, error=-20104"));
    EXPECT_EQ(sim_wait_received(cloud.get(), "", wait_ms())->text, R"({"result":1,"id":1})");
    client.agent = willing_agent;
    EXPECT_EQ(number_at(client.await_answer(id), "inner_error_code"), 0);
    EXPECT_TRUE(client.echo("x"));
}

// A client that owes the daemon something holds up the attempt for the time-out, not for ever: the
// registration then fails as such, but counts.
TEST_F(handshake_test, a_client_that_never_answers_holds_up_one_attempt_only) {
    for (const char* hello_cloud : {"1", "0"}) {
        start({.timeout_ms = is_slow() ? 2000 : 500, .kit = ""});
        client_t client;
        EXPECT_EQ(
            client.call("register_callback", std::string(R"({"hello_cloud":)") + hello_cloud + "}"),
            -1000);
        const std::int64_t deadline = now_ms() + wait_ms();
        ASSERT_TRUE(daemon.await_log("next time to reconnect is 1000 ms"));
        EXPECT_TRUE(*hello_cloud == '1' ||
                    sim_wait_received(cloud.get(), "", wait_ms())->text ==
                        R"({"error_code":-20002,"msg":"Request timeout","id":1})");
        client.agent = willing_agent;
        while (now_ms() < deadline && !daemon.await_log("begin to receive from the", 1, 1)) {
            (void)client.await_method("none", 50);
        }
        EXPECT_TRUE(connected());
        daemon.stop();
    }
}

}  // namespace
