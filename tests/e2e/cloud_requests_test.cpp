// Requests of the cloud, the registration of the client that answers them, and events.
#include "e2e/harness.h"

namespace {

struct cloud_requests_test : e2e_test {
    // A client that answers only what the test tells it to, once it has registered.
    client_t& agent_start(const settings_t& settings = {.kit = ""}) {
        start(settings);
        client_t& client = clients.emplace_back();
        client.agent = willing_agent;
        EXPECT_EQ(client.call("register_callback", R"({"hello_cloud":1})"), 0);
        client.agent = nullptr;
        return client;
    }
    // The device's answer to the request of that id.
    std::string answer_to(std::int64_t id) {
        const auto matches = [id](const sim_entry_t& entry) {
            return entry.what == sim_what_t::received && entry.asked && entry.id == id;
        };
        const auto entry = sim_wait_entry(cloud.get(), matches, wait_ms());
        return entry ? entry->text : "";
    }
    std::int64_t event(const std::string& params) {
        return sim_post(cloud.get(), sim_newest,
                        R"({"method":"notifyEvent","params":)" + params + "}");
    }
};

TEST_F(cloud_requests_test, a_kit_answers_several_at_once) {
    connect();
    sim_post(cloud.get(), sim_newest, R"({"method":"mute"})");
    const std::int64_t slow = sim_post(cloud.get(), sim_newest, R"({"method":"slow"})");
    const std::int64_t quick = sim_post(cloud.get(), sim_newest, R"({"method":"quick"})");
    EXPECT_EQ(answer_to(slow),
              R"({"error_code":0,"result":{"method":"slow"},"id":)" + std::to_string(slow) + "}");
    std::vector<std::int64_t> order;
    for (const sim_entry_t& entry : sim_log(cloud.get())) {
        if (entry.what == sim_what_t::received && entry.asked) {
            order.push_back(entry.id);
        }
    }
    EXPECT_EQ(order, (std::vector<std::int64_t>{quick, slow}));
    EXPECT_TRUE(daemon.await_log("get_response_of_cloud_request | - fail to get the response of"));
}

TEST_F(cloud_requests_test, a_client_answers_in_any_order) {
    client_t& client = agent_start({.timeout_ms = is_slow() ? 6000 : 2000, .kit = ""});
    const struct {
        std::string reply;  // behind "inner_id"
        std::string answer;
    } cases[] = {
        {R"("inner_error_code":0,"inner_result":{"response":"{\"a\":1}"})", R"("a":1)"},
        {R"("inner_error_code":0,"inner_result":{"response":"{\"id\":99}"})", ""},
        {R"("inner_error_code":-1)", R"("error_code":-1,"msg":"")"},
        {R"("inner_error_code":0)", R"("error_code":-20104,"msg":"")"},
        {R"("inner_error_code":0,"inner_result":{"response":5})",
         R"("error_code":-20104,"msg":"")"},
        {R"("inner_result":{"response":"{}"})", R"("error_code":-20104,"msg":"")"},
        {"", R"("error_code":-20002,"msg":"Request timeout")"},
    };
    std::deque<std::pair<std::string, std::string>> replies;
    std::vector<std::pair<std::int64_t, std::string>> expected;
    for (const auto& item : cases) {
        const std::int64_t id =
            sim_post(cloud.get(), sim_newest, R"({"method":"ask","params":[]})");
        EXPECT_EQ(client.await_method("cloud_request"),
                  R"({"inner_id":)" + std::to_string(id) +
                      R"(,"inner_method":"cloud_request","inner_params":{"request":)" +
                      quoted(R"({"method":"ask","params":[]})") + "}}");
        const std::string number = R"("id":)" + std::to_string(id);
        if (!item.reply.empty()) {
            replies.emplace_front(R"({"inner_id":)" + std::to_string(id) + ",", item.reply + "}");
        }
        expected.emplace_back(id,
                              "{" + item.answer + (item.answer.empty() ? "" : ",") + number + "}");
    }
    for (const auto& [start, end] : replies) {
        client.send(start + end);
    }
    for (const auto& [id, answer] : expected) {
        EXPECT_EQ(answer_to(id), answer);
    }
    // Nothing that could be sent on.
    sim_post(cloud.get(), sim_newest, R"({"method":"ask"})");
    const std::string asked = client.await_method("cloud_request");
    client.send(cloud_answer(number_at(asked, "inner_id"), "not JSON"));
    EXPECT_TRUE(daemon.await_log("task_for_cloud_request | - fail to get the response"));
    EXPECT_TRUE(works());
}

TEST_F(cloud_requests_test, one_client_at_a_time_is_registered) {
    client_t& first = agent_start();
    client_t& second = clients.emplace_back();
    const std::string hello = R"({"hello_cloud":1})";
    EXPECT_EQ(second.call("register_callback", hello), -3001);
    EXPECT_EQ(second.call("unregister_callback"), 0);
    EXPECT_EQ(first.call("register_callback", hello), 0);
    // A request that was on its way to a client that leaves is nobody else's.
    sim_post(cloud.get(), sim_newest, R"({"method":"ask"})");
    EXPECT_NE(first.await_method("cloud_request"), "");
    clients.pop_front();
    ASSERT_TRUE(daemon.await_log("unregister client: "));
    client_t& third = clients.emplace_back();
    EXPECT_EQ(third.call("register_callback", hello), 0);
    EXPECT_EQ(third.call("unregister_callback"), 0);
    sim_post(cloud.get(), sim_newest, R"({"method":"ask"})");
    EXPECT_TRUE(daemon.await_log("the client's file description or message is NULL"));
    EXPECT_EQ(third.await_method("cloud_request", 50), "");
    EXPECT_TRUE(works());
}

TEST_F(cloud_requests_test, of_many_that_register_at_the_same_moment_one_wins) {
    (void)agent_start().call("unregister_callback");
    clients.resize(15);
    for (int round = 0; round < 10; ++round) {
        std::vector<std::int64_t> ids;
        for (client_t& client : clients) {
            ids.push_back(client.post("register_callback", R"({"hello_cloud":1})"));
        }
        std::size_t winners = 0;
        for (std::size_t i = 0; i < clients.size(); ++i) {
            const std::int64_t code =
                number_at(clients[i].await_answer(ids[i]), "inner_error_code");
            EXPECT_TRUE(code == 0 || code == -3001) << code;
            winners += code == 0 ? 1 : 0;
        }
        EXPECT_EQ(winners, 1U);
        for (client_t& client : clients) {
            EXPECT_EQ(client.call("unregister_callback"), 0);
        }
    }
}

TEST_F(cloud_requests_test, events_are_answered_and_then_carried_out) {
    connect();
    const struct {
        const char* params;
        const char* log;
    } cases[] = {
        {R"("text")", "fail to get the event from the parameters"},
        {R"({"event":7})", "fail to get the event from the parameters"},
        {R"({"event":"stopConnect"})", "fail to get the attribute from the parameters"},
        {R"({"event":"heartBeatInterval","attribute":{}})", "fail to get the interval from"},
        {R"({"event":"heartBeatInterval","attribute":{"interval":0}})", "the interval is 0"},
        {R"({"event":"heartBeatInterval","attribute":{"interval":"1"}})", "the interval is 0"},
    };
    for (const auto& item : cases) {
        const std::int64_t id = event(item.params);
        EXPECT_EQ(number_at(answer_to(id), "error_code"), 0) << item.params;
        EXPECT_TRUE(daemon.await_log(item.log)) << item.params;
    }
    EXPECT_EQ(sim_stats(cloud.get()).heartbeats, 0U);
    EXPECT_EQ(
        number_at(answer_to(event(R"({"event":"heartBeatInterval","attribute":{"interval":1}})")),
                  "error_code"),
        0);
    const auto beats = [](const sim_stats_t& stats) { return stats.heartbeats >= 1; };
    EXPECT_TRUE(sim_wait_stats(cloud.get(), beats, wait_ms()));
    const std::int64_t before = now_ms();
    const std::int64_t id = event(R"({"event":"stopConnect","attribute":{"reconnectTime":1}})");
    EXPECT_EQ(number_at(answer_to(id), "error_code"), 0);
    EXPECT_TRUE(daemon.await_log("received time to reconnect is 1000 ms"));
    ASSERT_TRUE(connected(2));
    EXPECT_GE(now_ms() - before, 1000);
    EXPECT_NE(answer_to(event(R"({"event":"illegalDevice"})")), "");
    ASSERT_TRUE(daemon.await_log("end to receive from the cloud...", 2));
    EXPECT_EQ(sim_stats(cloud.get()).connections, 2U);
}

}  // namespace
