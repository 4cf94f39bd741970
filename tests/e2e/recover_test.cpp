// "recover" and "jitter": what a loss of the connection costs, and when the daemon is back.
#include <stdlib.h>

#include <algorithm>

#include "e2e/harness.h"

namespace {

constexpr sim_kind_t kinds[] = {sim_kind_t::close, sim_kind_t::close_tcp, sim_kind_t::reset};

struct recover_test : e2e_test, testing::WithParamInterface<std::size_t> {
    // A client's request connects at once, so that the back-off isn't waited out each time.
    void connect_again(client_t* client, std::uint64_t seen) const {
        const std::int64_t deadline = now_ms() + wait_ms();
        do {
            (void)client->request(R"({"method":"x"})", 100, 1);
            ASSERT_LT(now_ms(), deadline) << seen;
        } while (!sim_wait_handshakes(cloud.get(), seen + 1, 5));
    }

    void lose(client_t* client, int times) const {
        for (int i = 0; i < times; ++i) {
            const std::uint64_t seen = sim_stats(cloud.get()).handshakes;
            ASSERT_TRUE(sim_close(cloud.get(), sim_newest, kinds[GetParam()]));
            ASSERT_NO_FATAL_FAILURE(connect_again(client, seen));
        }
    }

    // The cloud says nothing any more, which the heartbeats find.
    void lose_in_silence(client_t* client, int times) {
        for (int i = 0; i < times; ++i) {
            ASSERT_TRUE(daemon.await_log("end to check the time out...", ++silences));
            const std::uint64_t seen = sim_stats(cloud.get()).handshakes;
            ASSERT_NO_FATAL_FAILURE(connect_again(client, seen));
        }
    }
    std::size_t silences = 0;
};

TEST_P(recover_test, a_thousand_lost_connections_leave_nothing_behind) {
    connect({.link = R"({"recover":true})"});
    client_t client;
    ASSERT_NO_FATAL_FAILURE(lose(&client, 50));
    const long descriptors = daemon.descriptors();
    const long kb = daemon.status("VmRSS:");
    ASSERT_NO_FATAL_FAILURE(lose(&client, is_slow() ? 50 : 1000));
    EXPECT_EQ(daemon.descriptors(), descriptors);
    EXPECT_LE(daemon.status("VmRSS:"), kb + (is_slow() ? 100000 : 1000));
    EXPECT_EQ(daemon.count_log("the connection is lost"), is_slow() ? 100U : 1050U);
    EXPECT_TRUE(works());
}
INSTANTIATE_TEST_SUITE_P(ways, recover_test, testing::Range(std::size_t{0}, std::size(kinds)));

// A loss takes a second: RECOVER_LOSSES sets how many there are.
TEST_F(recover_test, silence_leaves_nothing_behind) {
    connect({.heartbeat_ms = 50, .timeout_ms = 100, .link = R"({"recover":true})"},
            {.heartbeat = sim_heartbeat_t::silent});
    client_t client;
    ASSERT_NO_FATAL_FAILURE(lose_in_silence(&client, 5));
    const long descriptors = daemon.descriptors();
    const long kb = daemon.status("VmRSS:");
    const char* const losses = getenv("RECOVER_LOSSES");
    ASSERT_NO_FATAL_FAILURE(lose_in_silence(&client, losses != nullptr ? atoi(losses) : 10));
    EXPECT_EQ(daemon.descriptors(), descriptors);
    EXPECT_LE(daemon.status("VmRSS:"), kb + (is_slow() ? 100000 : 1000));
}

// Connections that don't hold a minute, as with a cloud that accepts and closes.
TEST_F(recover_test, a_loss_costs_little_and_the_back_off_grows) {
    connect({.link = R"({"recover":true})"});
    const std::int64_t begin = now_ms();
    const std::int64_t processor = daemon.processor_ms();
    for (std::size_t i = 0; i < std::size(kinds); ++i) {
        ASSERT_TRUE(sim_close(cloud.get(), sim_newest, kinds[i]));
        ASSERT_TRUE(connected(i + 2));
        EXPECT_EQ(daemon.count_log("next time to reconnect is " + std::to_string(1000 << i)), 1U);
    }
    EXPECT_GE(now_ms() - begin, 1000 + 2000 + 4000);
    EXPECT_LE(daemon.processor_ms() - processor, (now_ms() - begin) / (is_slow() ? 2 : 20));
    const std::vector<std::string> lines = daemon.log();
    const auto holds = [](const char* text) {
        return [=](const auto& line) { return line.find(text) != std::string::npos; };
    };
    auto loss = lines.begin();
    for (std::size_t i = 0; i < std::size(kinds); ++i) {
        loss = std::find_if(loss, lines.end(), holds("the connection is lost"));
        const auto next = std::find_if(loss, lines.end(), holds("begin to parse the domain"));
        EXPECT_LE(next - loss, 10) << i;
        EXPECT_EQ(std::count_if(loss, next, holds("begin to connect the cloud...")), 1) << i;
        loss = next;
    }
}

TEST_F(recover_test, is_back_soon_after_the_cloud) {
    connect({.link = R"({"recover":true,"jitter":true})"});
    sim_unlisten(cloud.get());
    ASSERT_TRUE(sim_close(cloud.get(), sim_newest, sim_kind_t::reset));
    ASSERT_TRUE(daemon.await_log("next time to reconnect is ", 2));
    ASSERT_TRUE(sim_relisten(cloud.get()));
    const std::int64_t there = now_ms();
    EXPECT_TRUE(connected(2));
    EXPECT_LE(now_ms() - there, is_slow() ? 10000 : 3000);
    const int first = std::stoi(daemon.log_tail("next time to reconnect is "));
    EXPECT_TRUE(first >= 500 && first <= 1000) << first;
}

TEST_F(recover_test, whoever_sees_the_loss_it_is_one_order) {
    connect({.heartbeat_ms = 100, .link = R"({"recover":true})"});
    clients.resize(4);
    for (std::size_t loss = 1; loss <= 2; ++loss) {
        for (int i = 0; i < 80; ++i) {
            clients[i % 4].post("device_request", request_params(R"({"method":"x"})"));
            if (i == 40) {
                ASSERT_TRUE(sim_close(cloud.get(), sim_newest, sim_kind_t::reset));
            }
        }
        ASSERT_TRUE(connected(loss + 1));
        EXPECT_EQ(daemon.count_log("the connection is lost"), loss);
        EXPECT_EQ(daemon.count_log("begin to connect the cloud..."), loss + 1);
        EXPECT_EQ(sim_stats(cloud.get()).connections, loss + 1);
    }
    EXPECT_TRUE(works());
}

}  // namespace
