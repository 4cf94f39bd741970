// Requests of clients to the cloud.
#include "e2e/harness.h"

namespace {

using requests_test = e2e_test;

std::string request_of(std::size_t number) {
    return R"({"method":"m","params":)" + std::to_string(number) + "}";
}

TEST_F(requests_test, each_answer_reaches_the_client_that_asked) {
    constexpr std::size_t count = 200;
    connect({}, {.requests = sim_kind_t::hold});
    clients.resize(5);
    std::vector<std::int64_t> inner_ids(count);
    for (std::size_t i = 0; i < count; ++i) {
        inner_ids[i] = clients[i % 5].post("device_request", request_params(request_of(i)));
    }
    const auto all_held = [](const sim_stats_t& stats) { return stats.held == count; };
    ASSERT_TRUE(sim_wait_stats(cloud.get(), all_held, wait_ms()));
    sim_release(cloud.get(), count, true);
    for (std::size_t i = 0; i < count; ++i) {
        client_t& client = clients[i % 5];
        const std::string answer = client.await_answer(inner_ids[i]);
        EXPECT_EQ(number_at(answer, "inner_error_code"), 0);
        EXPECT_EQ(client.response(number_at(answer, "inner_result.id")),
                  R"({"error_code":0,"result":)" + std::to_string(i) + "}");
    }
}

// Some of these look like requests and are none; none may take the only message id.
TEST_F(requests_test, a_bad_message_gets_its_code_or_nothing) {
    const std::string request = R"({"inner_id":7,"inner_method":"device_request")";
    const std::string params = request + R"(,"inner_params":)";
    const std::string rest = R"("timeout_ms":1,"flag":0}})";
    const std::string registration = R"({"inner_id":7,"inner_method":"register_callback")";
    const struct {
        std::string message;
        int code;  // 0: no answer
    } cases[] = {
        {R"({"inner_id":7,"inner_method":"no_such_method"})", -20103},
        {R"({"inner_id":7,"inner_method":5})", -20103},
        {R"({"inner_id":7,"inner_method":null})", -20103},
        {R"({"inner_id":7,"inner_method":["device_request"]})", -20103},
        {R"({"inner_id":7,"inner_method":"DEVICE_REQUEST"})", -20103},
        {request + "}", -20104},
        {params + R"("text"})", -20104},
        {params + "[]}", -20104},
        {params + R"({"timeout_ms":1,"flag":0}})", -20104},
        {params + R"({"request":"{}","flag":0}})", -20104},
        {params + R"({"request":"{}","timeout_ms":1}})", -20104},
        {params + R"({"request":{"method":"x"},)" + rest, -20107},
        {params + R"({"request":null,)" + rest, -20107},
        {params + R"({"request":"nonsense",)" + rest, -10100},
        {params + R"({"request":"{}",)" + rest, -20103},
        {params + R"({"request":"[]",)" + rest, -20103},
        {params + R"({"request":"5",)" + rest, -20103},
        {params + R"({"request":)" + quoted(R"({"method":")" + std::string(65536, 'x') + "\"}") +
             "," + rest,
         -10102},
        {registration + "}", -20104},
        {registration + R"(,"inner_params":{}})", -20104},
        {registration + R"(,"inner_params":{"hello_cloud":"1"}})", -3001},
        {R"({"inner_method":"device_request","inner_params":{}})", 0},
        {R"({"inner_id":7})", 0},
        {R"({"inner_id":"x","inner_error_code":[],"inner_result":1})", 0},
        {R"({"inner_result":{"response":5}})", 0},
        {R"({"inner_result":[]})", 0},
        {"[1]", 0},
        {"5", 0},
        {"\"inner_method\"", 0},
        {"", 0},
        {"not JSON", 0},
        {std::string("{\0}", 3), 0},
        {std::string(100000, '['), 0},
        {std::string(900, '[') + std::string(900, ']'), 0},
    };
    connect({.messages = 1});
    client_t client;
    EXPECT_EQ(client.greeting(), 0);
    for (const auto& item : cases) {
        SCOPED_TRACE(item.message.substr(0, 100));
        ASSERT_TRUE(client.send(item.message));
        if (item.code != 0) {
            EXPECT_EQ(client.receive(),
                      R"({"inner_id":7,"inner_error_code":)" + std::to_string(item.code) + "}");
        }
    }
    EXPECT_TRUE(client.echo("x"));
    EXPECT_EQ(client.receive(100), "");
    // Numbers that don't fit are held within 32 bits.
    client.send(R"({"inner_id":1e300,"inner_method":"x"})");
    EXPECT_NE(client.await_answer(INT32_MAX), "");
    client.send(params + R"({"request":"{\"method\":\"x\"}","timeout_ms":-1e300,"flag":1e300}})");
    EXPECT_EQ(number_at(client.await_answer(7), "inner_error_code"), 0);
}

TEST_F(requests_test, an_unanswered_one_times_out_once_and_its_late_answer_is_dropped) {
    connect({.timeout_ms = 1500}, {.requests = sim_kind_t::hold});
    client_t client;
    for (const int timeout_ms : {100, 0, -1}) {
        const sent_t sent = client.request(request_of(1), timeout_ms);
        EXPECT_EQ(client.response(sent.id), R"({"error_code":-20002,"msg":"Request time out"})");
    }
    sim_release(cloud.get());
    EXPECT_TRUE(daemon.await_log("fail to get the data by the message id", 3));
    behave([](sim_behaviour_t* behaviour) { behaviour->requests = sim_kind_t::echo; });
    EXPECT_TRUE(client.echo("x"));
    EXPECT_EQ(client.greeting(), 0);
    EXPECT_EQ(client.receive(100), "");
}

TEST_F(requests_test, without_a_free_id_one_waits_as_long_as_its_own_time_out) {
    connect({.messages = 1}, {.requests = sim_kind_t::hold});
    clients.resize(3);
    const sent_t first = clients[0].request(request_of(1));
    EXPECT_EQ(clients[1].request(request_of(2), 200).code, -20002);
    const std::int64_t waiting = clients[2].post("device_request", request_params(request_of(3)));
    ASSERT_TRUE(daemon.await_log("IPC receive from", 3));
    sim_release(cloud.get());
    EXPECT_EQ(clients[0].response(first.id), R"({"error_code":0,"result":1})");
    EXPECT_EQ(number_at(clients[2].await_answer(waiting), "inner_result.id"), 1);
}

TEST_F(requests_test, overdue_ones_give_their_ids_back_before_the_next_handshake) {
    connect({.messages = 2}, {.requests = sim_kind_t::drop});
    clients.resize(2);
    const sent_t sent[] = {clients[0].request(request_of(0), 200),
                           clients[1].request(request_of(1), 200)};
    sim_unlisten(cloud.get());
    EXPECT_EQ(clients[0].call("reconnect_cloud"), 0);
    ASSERT_TRUE(daemon.await_log("next time to reconnect is 1000 ms"));
    ASSERT_TRUE(sim_relisten(cloud.get()));
    EXPECT_TRUE(connected(2));
    for (const int i : {0, 1}) {
        EXPECT_EQ(clients[i].response(sent[i].id),
                  R"({"error_code":-20002,"msg":"Request time out"})");
    }
}

TEST_F(requests_test, without_a_connection_the_flag_decides) {
    start();
    client_t client;
    for (const int flag : {0, 1}) {
        const std::size_t times = flag + 1;
        ASSERT_TRUE(connected(times));
        sim_post(cloud.get(), sim_newest,
                 R"({"method":"notifyEvent","params":{"event":"illegalDevice"}})");
        ASSERT_TRUE(daemon.await_log("end the task of responding the request", times));
        // The time-out is negative: the configured one counts, for the connection, too.
        EXPECT_EQ(client.echo("x", -1, flag), flag == 1);
        EXPECT_TRUE(connected(times + 1));
    }
}

// What such a client gets for a request that was never sent again: id 0, and no response.
TEST_F(requests_test, a_lost_connection_is_noticed_by_the_next_request) {
    start();
    client_t client;
    for (const int flag : {0, 1}) {
        ASSERT_TRUE(connected(flag + 1));
        sim_close(cloud.get(), sim_newest);
        ASSERT_TRUE(daemon.await_log("chk_result | - the ssl_socket_t is out", flag + 1));
        const sent_t sent = client.request(request_of(1), -1, flag);
        EXPECT_EQ(sent.code, flag == 1 ? 0 : -1000);
        EXPECT_EQ(sent.id, flag == 1 ? 0 : -1);
    }
    EXPECT_TRUE(works());
}

}  // namespace
