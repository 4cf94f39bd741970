// The life of the connection: heartbeats, back-off, orders to reconnect, frames on the wire.
#include "e2e/harness.h"

namespace {

using session_test = e2e_test;

TEST_F(session_test, heartbeats_keep_it_and_three_unanswered_ones_replace_it) {
    connect({.heartbeat_ms = 100, .timeout_ms = is_slow() ? 2000 : 600});
    behave([](sim_behaviour_t* behaviour) { behaviour->heartbeat_code = 5; });
    EXPECT_TRUE(daemon.await_log("fail to send the heartbeat, error=5"));
    behave([](sim_behaviour_t* behaviour) { behaviour->heartbeat_code = 0; });
    const std::uint64_t beats = sim_stats(cloud.get()).heartbeats;
    const auto more = [&](const sim_stats_t& stats) { return stats.heartbeats >= beats + 3; };
    EXPECT_TRUE(sim_wait_stats(cloud.get(), more, wait_ms()));
    EXPECT_EQ(sim_stats(cloud.get()).connections, 1U);
    const std::uint64_t answered = sim_stats(cloud.get()).heartbeats;
    behave([](auto* behaviour) { behaviour->heartbeat = sim_heartbeat_t::silent; });
    EXPECT_TRUE(daemon.await_log("fail to send the heartbeat, error=-20002"));
    EXPECT_GE(sim_stats(cloud.get()).heartbeats, answered + 3);
    EXPECT_TRUE(connected(2));
}

TEST_F(session_test, attempts_back_off_until_the_cloud_is_there) {
    configure();
    sim_unlisten(cloud.get());
    const std::int64_t before = now_ms();
    launch();
    ASSERT_TRUE(daemon.await_log("next time to reconnect is 1000 ms"));
    EXPECT_EQ(client_t().request(R"({"method":"x"})", -1, 1).code, -1000);
    EXPECT_TRUE(daemon.await_log("next time to reconnect is 2000 ms"));
    ASSERT_TRUE(sim_relisten(cloud.get()));
    EXPECT_TRUE(connected());
    EXPECT_GE(now_ms() - before, 3000);
    EXPECT_EQ(daemon.count_log("next time to reconnect"), 2U);
}

// The order comes inside the attempt's handshake, from the same task that has to carry it out.
TEST_F(session_test, a_delay_ordered_by_the_handshake_is_waited_out_whoever_else_orders) {
    const std::int64_t before = now_ms();
    start({}, {.hello = sim_hello_t::stop, .hello_value = 1});
    ASSERT_TRUE(daemon.await_log("next time to reconnect is 1000 ms"));
    client_t client;
    EXPECT_EQ(client.request(R"({"method":"x"})").code, -1000);
    EXPECT_EQ(client.call("reconnect_cloud"), 0);
    ASSERT_TRUE(daemon.await_log("next time to reconnect is 1000 ms", 2));
    EXPECT_GE(now_ms() - before, 1000);
    behave([](sim_behaviour_t* behaviour) { behaviour->hello = sim_hello_t::accept; });
    EXPECT_TRUE(connected());
    EXPECT_GE(now_ms() - before, 2000);
    EXPECT_TRUE(works());
}

// Each order comes as soon as the cloud has seen the handshake, which is before the end of the task
// that made the connection.
TEST_F(session_test, no_order_is_dropped_and_one_task_of_each_kind_is_left) {
    connect();
    clients.resize(3);
    std::int64_t last_ids[3] = {};
    for (std::size_t round = 1; round <= 30; ++round) {
        const std::uint64_t seen = sim_stats(cloud.get()).handshakes;
        for (std::size_t i = 0; i <= round % clients.size(); ++i) {
            last_ids[i] = clients[i].post("reconnect_cloud");
        }
        if (round % 5 == 0) {
            sim_close(cloud.get(), sim_newest, sim_kind_t::reset);
        }
        ASSERT_TRUE(sim_wait_handshakes(cloud.get(), seen + 1, wait_ms())) << round;
    }
    for (std::size_t i = 0; i < clients.size(); ++i) {
        EXPECT_NE(clients[i].await_answer(last_ids[i]), "");
    }
    EXPECT_TRUE(works());
    const std::size_t made = daemon.count_log("end to handshake helloCloud...");
    for (const std::string kind : {" to receive from the cloud...", " to check the time out..."}) {
        EXPECT_TRUE(daemon.await_log("begin" + kind, made));
        EXPECT_TRUE(daemon.await_log("end" + kind, made - 1));
        EXPECT_EQ(daemon.count_log("end" + kind), made - 1);
    }
    const auto one = [](const sim_stats_t& stats) { return stats.open == 1; };
    EXPECT_TRUE(sim_wait_stats(cloud.get(), one, wait_ms()));
}

TEST_F(session_test, after_orders_from_all_sides_it_is_connected) {
    const int timeout_ms = is_slow() ? 2000 : 500;
    start({.heartbeat_ms = 100, .timeout_ms = timeout_ms});
    clients.resize(4);
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(works());
        sim_post(cloud.get(), sim_newest,
                 R"({"method":"notifyEvent","params":{"event":"stopConnect",)"
                 R"("attribute":{"reconnectTime":1}}})");
        for (client_t& client : clients) {
            client.post("reconnect_cloud");
            client.post("device_request", request_params(R"({"method":"x"})", -1, round % 2));
        }
        behave([&](sim_behaviour_t* behaviour) {
            behaviour->heartbeat = round == 1 ? sim_heartbeat_t::silent : sim_heartbeat_t::answer;
        });
        sim_close(cloud.get(), sim_newest, round == 0 ? sim_kind_t::close : sim_kind_t::reset);
    }
    EXPECT_TRUE(works());
}

// The second is not readable for a select any more.
TEST_F(session_test, frames_that_came_in_one_record_are_answered_at_once) {
    connect();
    sim_send_raw(cloud.get(), sim_newest,
                 sim_frame(R"({"method":"x","id":11})") + sim_frame(R"({"method":"x","id":12})"));
    for (const int id : {11, 12}) {
        const auto matches = [id](const sim_entry_t& entry) {
            return entry.what == sim_what_t::received && entry.id == id;
        };
        EXPECT_TRUE(sim_wait_entry(cloud.get(), matches, wait_ms()));
    }
}

// Neither the wait for a client's hello, nor that for its answer, nor an idle connection spins. A
// busy machine leaves little to one that does, and needs no more for one that does not.
TEST_F(session_test, waiting_takes_no_processor_time) {
    const std::pair<const char*, const char*> waits[] = {
        {R"({"hello_cloud":1})", "request_of_hello_cloud"},
        {R"({"hello_cloud":0})", "cloud_request"},
        {"{}", "server_notify"}};
    for (const auto& [registration, method] : waits) {
        start({.kit = registration[1] == '}' ? "full" : ""});
        ASSERT_TRUE(registration[1] != '}' || connected());
        client_t client;
        client.post("register_callback", registration);
        ASSERT_NE(client.await_method(method), "");
        const std::int64_t before = daemon.processor_ms();
        EXPECT_EQ(client.await_method("none", 1000), "");
        EXPECT_LT(daemon.processor_ms() - before, is_slow() ? 300 : 50);
        daemon.stop();
    }
}

}  // namespace
