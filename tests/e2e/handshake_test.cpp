// Both handshakes, by a kit and by a registered client.
#include "e2e/harness.h"

namespace {

using handshake_test = e2e_test;

struct verdict_t {
    const char* name;
    const char* kit;
    sim_behaviour_t behaviour;
    const char* log;  // what the daemon says of it
    bool refused;     // whether it doesn't try again
};

void PrintTo(const verdict_t& item, std::ostream* out) {
    *out << item.name;
}

sim_behaviour_t answer(const char* text) {
    return {.hello = sim_hello_t::custom, .hello_answer = text};
}

sim_behaviour_t verdict(const char* text) {
    return {.verdict = text};
}

struct verdict_test : e2e_test, testing::WithParamInterface<verdict_t> {};

TEST_P(verdict_test, is_understood) {
    const verdict_t& item = GetParam();
    start({.timeout_ms = is_slow() ? 3000 : 1000, .kit = item.kit}, item.behaviour);
    EXPECT_TRUE(daemon.await_log(item.log));
    EXPECT_TRUE(daemon.await_log(item.refused ? "stop to reconnect" : "next time to reconnect is"));
    EXPECT_TRUE(!item.refused || daemon.await_log("end to connect the cloud..."));
    EXPECT_EQ(daemon.count_log("begin to receive from the cloud..."), 0U);
}

const verdict_t verdicts[] = {
    {"refused", "full", {.hello = sim_hello_t::refuse, .hello_value = 2}, "illegal type=2", true},
    {"error_code",
     "full",
     {.hello = sim_hello_t::error, .hello_value = 5},
     "fail to reconnect the cloud, code=5",
     false},
    {"other_id", "full", {.hello = sim_hello_t::wrong_id}, "the cloud, code=-20100", false},
    {"no_answer", "full", {.hello = sim_hello_t::silent}, "the cloud, code=-3000", false},
    {"no_error_code", "full", answer(R"({"result":{"illegalType":0}})"), "code=-10100", false},
    {"no_result", "full", answer(R"({"error_code":0})"), "fail to get the result from", false},
    {"empty_result", "full", answer(R"({"error_code":0,"result":{}})"), "code=-10100", false},
    {"result_no_object", "full", answer(R"({"error_code":0,"result":"x"})"), "code=-10100", false},
    {"type_before_stop", "full",
     answer(R"({"error_code":0,"result":{"stopConnect":1,"illegalType":3,"reconnectTime":1}})"),
     "illegal type=3", true},
    {"beat_error", "respond", {.heartbeat_code = 7}, "reconnect the cloud, code=7", false},
    {"beat_id", "respond", {.heartbeat = sim_heartbeat_t::wrong_id}, "code=-20100", false},
    {"no_question", "respond", {.device_info = "", .verdict = ""}, "code=-3000", false},
    {"letter_case", "respond", {.device_info = R"({"method":"getdeviceinfo"})"}, "-20103", false},
    {"method_no_text", "respond", {.device_info = R"({"method":[1],"id":1})"}, "-20103", false},
    {"no_device_answer", "respond", {.device_info = R"({"method":"mute"})"}, "-20103", false},
    {"illegal", "respond",
     verdict(R"({"method":"notifyEvent","params":{"event":"illegalDevice"}})"),
     "the event is \"illegalDevice\", not \"legalDevice\"", true},
    {"no_params", "respond", verdict(R"({"method":"notifyEvent"})"), "code=-20104", false},
    {"event_no_text", "respond", verdict(R"({"method":"notifyEvent","params":{"event":5}})"),
     "code=-20104", false},
};

INSTANTIATE_TEST_SUITE_P(, verdict_test, testing::ValuesIn(verdicts),
                         [](const auto& item) { return item.param.name; });

TEST_F(handshake_test, a_kit_says_hello_and_hears_the_answer) {
    start({}, answer(R"({"error_code":0,"result":{"illegalType":0,"stopConnect":1}})"));
    ASSERT_TRUE(connected());
    const auto hello = sim_wait_received(cloud.get(), "helloCloud", wait_ms());
    EXPECT_EQ(hello->text, R"({"method":"helloCloud","params":{"kit":1},"id":1})");
    EXPECT_TRUE(daemon.await_log(
        R"(kit heard {"error_code":0,"result":{"illegalType":0,"stopConnect":1}})"));
    client_t client;
    EXPECT_EQ(client.call("register_callback", R"({"hello_cloud":1})"), -3001);
    EXPECT_TRUE(client.echo("x"));
}

TEST_F(handshake_test, a_kit_without_the_hello_makes_the_default_one) {
    start({.kit = "respond"}, {.hello = sim_hello_t::silent});
    ASSERT_TRUE(connected());
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
