// Local clients that misbehave: the others are served meanwhile, and it works afterwards.
#include <sys/resource.h>

#include <filesystem>
#include <fstream>

#include "e2e/harness.h"

namespace {

using hostile_local_test = e2e_test;
using hostile_client_test = case_test;

std::string proc(const e2e_test* test, const std::string& name) {
    return "/proc/" + std::to_string(test->daemon.pid) + "/" + name;
}

long pages(const e2e_test* test) {
    long size = 0;
    std::ifstream(proc(test, "statm")) >> size;
    return size;
}

TEST_P(hostile_client_test, harms_nobody_else) {
    connect();
    client_t peer;
    EXPECT_TRUE(peer.echo("before"));
    GetParam().run(this);
    EXPECT_TRUE(peer.echo("meanwhile"));
    clients.clear();
    EXPECT_TRUE(works());
}

void stall(e2e_test* test) {
    const std::string frame = local_header(100) + std::string(50, 'x');
    for (const std::size_t length : {1, 2, 4, 6, 10}) {
        EXPECT_TRUE(test->clients.emplace_back().send_raw(frame.substr(0, length)));
    }
    EXPECT_TRUE(client_t().echo("meanwhile"));
    for (const char* field : {"magic, code=1", "length, code=0", "length, code=2",
                              "message, code=0", "message, code=4"}) {
        EXPECT_TRUE(test->daemon.await_log(std::string("fail to receive the ") + field));
    }
    for (client_t& client : test->clients) {
        EXPECT_EQ(client.call("anything"), -20103);
    }
}

void announce_gigabytes(e2e_test* test) {
    const long before = pages(test);
    for (int i = 0; i < 10; ++i) {
        test->clients.emplace_back().send_raw(local_header(UINT32_MAX) + "{");
        test->clients.back().send_raw(std::string(5000, 'x'));
    }
    EXPECT_TRUE(client_t().echo("meanwhile"));
    EXPECT_LT(pages(test) - before, 1024L * 1024 * 1024 / 4096);
}

// What it takes in the end are whole frames, though some are missing.
void read_nothing(e2e_test* test) {
    client_t& client = test->clients.emplace_back();
    const std::string params(10000, 'x');
    for (int i = 0; i < 3000; ++i) {
        client.post("anything");
        if (i % 30 == 0) {
            client.post("device_request",
                        request_params(R"({"method":"x","params":")" + params + "\"}"));
        }
    }
    EXPECT_TRUE(test->daemon.await_log("fail to send the message to the client, error=-1101"));
    EXPECT_TRUE(client_t().echo("meanwhile"));
    while (!client.await_method("server_notify", 100).empty()) {
    }
    EXPECT_EQ(client.call("anything"), -20103);
}

void come_and_go(e2e_test* test) {
    for (int i = 0; i < 500; ++i) {
        const client_t client;
        client.send_raw(local_header(50).substr(0, i % 7) + std::string(i % 7 == 6 ? 10 : 0, 'x'));
        if (i % 5 == 0) {
            client.send(R"({"inner_method":"device_request","inner_id":1,"inner_params":)" +
                        request_params(R"({"method":"x"})") + "}");
        }
    }
    EXPECT_TRUE(test->daemon.await_log("client is closed, socket", 400));
}

void crowd(e2e_test* test) {
    test->clients.resize(2000);
    EXPECT_EQ(test->clients.front().greeting(), 0);
    EXPECT_EQ(test->clients.front().call("anything"), -20103);
    EXPECT_EQ(test->clients.back().greeting(), 1);
    EXPECT_TRUE(test->clients.back().await_close());
    EXPECT_TRUE(test->daemon.await_log("client list is FULL", 2000 - 19));
}

void garbage(e2e_test* test) {
    for (const std::string& bytes :
         {std::string("\xB2\xA1"), std::string(5000, '\0'), std::string(5000, '\xFF'),
          local_header(0) + local_header(0), local_header(3) + std::string(3, '\0')}) {
        client_t& client = test->clients.emplace_back();
        client.send_raw(bytes);
        EXPECT_EQ(client.call("anything"), -20103);
    }
}

const case_t hostile_clients[] = {
    {"stalls_in_a_frame", {}, {}, stall},    {"announces_gigabytes", {}, {}, announce_gigabytes},
    {"reads_nothing", {}, {}, read_nothing}, {"comes_and_goes", {}, {}, come_and_go},
    {"is_a_crowd", {}, {}, crowd},           {"sends_garbage", {}, {}, garbage},
};

INSTANTIATE_TEST_SUITE_P(, hostile_client_test, testing::ValuesIn(hostile_clients), case_name);

TEST_F(hostile_local_test, the_next_with_its_number_gets_nothing_of_who_left) {
    connect({}, {.requests = sim_kind_t::hold});
    client_t& first = clients.emplace_back();
    EXPECT_EQ(first.request(R"({"method":"x"})").code, 0);
    EXPECT_EQ(first.request(R"({"method":"x"})", 300).code, 0);
    clients.clear();
    ASSERT_TRUE(daemon.await_log("client is closed, socket: "));
    client_t second;
    EXPECT_EQ(second.greeting(), 0);
    const std::string number = daemon.log_tail("client is closed, socket: ");
    EXPECT_TRUE(
        daemon.await_log("IPC send to " + number + R"(: {"inner_method":"server_notify")", 2));
    ASSERT_TRUE(daemon.await_log("the request is time out"));
    sim_release(cloud.get());
    EXPECT_TRUE(daemon.await_log("fail to send the message to the client, error=-1101", 2));
    EXPECT_EQ(second.receive(100), "");
    behave([](sim_behaviour_t* behaviour) { behaviour->requests = sim_kind_t::echo; });
    EXPECT_TRUE(second.echo("x"));
}

TEST_F(hostile_local_test, the_cloud_on_its_number_gets_nothing_meant_for_who_left) {
    configure({}, {.requests = sim_kind_t::drop});
    sim_unlisten(cloud.get());
    launch();
    ASSERT_TRUE(daemon.await_log("next time to reconnect is 1000 ms"));
    client_t& first = clients.emplace_back();
    EXPECT_EQ(first.greeting(), 0);
    ASSERT_TRUE(sim_relisten(cloud.get()));
    EXPECT_EQ(first.request(R"({"method":"x"})", 1000, 1).code, 0);
    client_t second;
    EXPECT_EQ(second.greeting(), 0);
    clients.clear();
    ASSERT_TRUE(daemon.await_log("client is closed, socket: "));
    EXPECT_EQ(second.call("reconnect_cloud"), 0);
    ASSERT_TRUE(connected(2));
    const std::string number = daemon.log_tail("client is closed, socket: ");
    EXPECT_EQ(
        std::filesystem::read_symlink(proc(this, "fd/" + number)).string().rfind("socket:", 0), 0U);
    ASSERT_TRUE(daemon.await_log("the request is time out"));
    behave([](sim_behaviour_t* behaviour) { behaviour->requests = sim_kind_t::echo; });
    EXPECT_TRUE(second.echo("x"));
    EXPECT_EQ(sim_stats(cloud.get()).connections, 2U);
}

TEST_F(hostile_local_test, without_descriptors_it_rests_and_serves_who_is_there) {
    connect();
    client_t peer;
    EXPECT_EQ(peer.greeting(), 0);
    const std::filesystem::directory_iterator open(proc(this, "fd"));
    rlimit before = {};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none = {static_cast<rlim_t>(std::distance(begin(open), end(open))),
                         before.rlim_max};
    ASSERT_EQ(prlimit(daemon.pid, RLIMIT_NOFILE, &none, nullptr), 0);
    const std::int64_t start_ms = now_ms();
    clients.resize(3);
    EXPECT_TRUE(peer.echo("meanwhile"));
    EXPECT_TRUE(daemon.await_log("fail to accept, error=24", 6));
    EXPECT_GE(now_ms() - start_ms, 400);
    EXPECT_TRUE(peer.echo("meanwhile"));
    ASSERT_EQ(prlimit(daemon.pid, RLIMIT_NOFILE, &before, nullptr), 0);
    for (client_t& client : clients) {
        EXPECT_EQ(client.greeting(), 0);
    }
}

// The numbers from 1024 on are beyond select: refused to a client, a failed attempt for the cloud.
TEST_F(hostile_local_test, a_descriptor_beyond_select_is_refused) {
    configure({.clients = 2000});
    sim_unlisten(cloud.get());
    launch();
    ASSERT_TRUE(daemon.await_log("next time to reconnect is 1000 ms"));
    clients.resize(1100);
    EXPECT_EQ(clients[950].greeting(), 0);
    EXPECT_EQ(clients[950].call("anything"), -20103);
    EXPECT_EQ(clients[1099].greeting(), 1);
    ASSERT_TRUE(sim_relisten(cloud.get()));
    EXPECT_EQ(clients[950].request(R"({"method":"x"})", -1, 1).code, -1000);
    EXPECT_TRUE(daemon.await_log("fail to connect the server, result=-1, error=24"));
    clients.resize(1000);
    ASSERT_TRUE(daemon.await_log("client is closed, socket", 10));
    EXPECT_TRUE(clients[950].echo("x", -1, 1));
}

}  // namespace
