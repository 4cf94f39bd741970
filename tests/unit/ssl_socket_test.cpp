#include "link/ssl_socket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>

#include "capture.h"
#include "cloud_sim/engine.h"

constexpr int kPatienceMs = 20000;  // for what must come

struct ssl_socket_test : captured_t {
    sim_handle_t sim = sim_start({});
    sim_behaviour_t behaviour;
    owned_t<ssl_socket_t, ssl_socket_destroy> owned{ssl_socket_init("none.cer", nullptr)};
    ssl_socket_t* socket = owned.get();
    json_ptr json;

    ssl_socket_test() {
        behaviour.hello = sim_hello_t::silent;
        behaviour.requests = sim_kind_t::drop;
        sim_set_behaviour(sim.get(), behaviour);
    }
    int32_t connect() const {
        return ssl_socket_connect(socket, "127.0.0.1", sim_port(sim.get()), kPatienceMs);
    }
    int32_t send(const std::string& text) const {
        return ssl_socket_send(socket, json_ptr(cJSON_Parse(text.c_str())).get());
    }
    // Connects; the cloud is through with the TLS handshake afterwards.
    void connect_through() {
        const uint64_t mark = sim_mark(sim.get());
        ASSERT_EQ(connect(), 0);
        ASSERT_EQ(send(R"({"method":"first","id":1})"), 0);
        ASSERT_TRUE(sim_wait_received(sim.get(), "first", kPatienceMs, mark));
        log.clear();
    }
    int32_t receive(int32_t timeout_ms) { return ssl_socket_rcv(socket, timeout_ms, &json); }

    void expect_frame(int32_t timeout_ms, const std::string& text) {
        EXPECT_EQ(receive(timeout_ms), 0);
        EXPECT_STREQ(json_print(json.get()).get(), text.c_str());
    }
};

TEST_F(ssl_socket_test, addresses_and_no_connection) {
    for (const int32_t port : {0, 65536, INT32_MIN}) {
        EXPECT_EQ(ssl_socket_connect(socket, "127.0.0.1", port, 0), CLOUD_SVR_E_RANGE);
    }
    EXPECT_EQ(ssl_socket_connect(socket, "localhost", 65535, 0), CLOUD_SVR_E_RESOURCE);
    EXPECT_TRUE(log.has("- fail to inet_aton\n"));
    sim_unlisten(sim.get());
    EXPECT_EQ(connect(), CLOUD_SVR_E_NO_CONNECTION);
    EXPECT_EQ(ssl_socket_get_status(socket), 0);
    EXPECT_EQ(send("{}"), CLOUD_SVR_E_NO_CONNECTION);
    EXPECT_EQ(receive(0), CLOUD_SVR_E_INCOMPLETE);
}

TEST_F(ssl_socket_test, the_longest_text_is_sent_and_one_byte_more_is_refused) {
    connect_through();
    EXPECT_EQ(connect(), 0);  // stays with the connection that there is
    const std::string begin = R"({"method":"long","id":2,"p":")";
    const std::string text = begin + std::string(65535 - begin.size() - 2, 'p');
    EXPECT_EQ(send(text + "p\"}"), CLOUD_SVR_E_TOO_LONG);
    EXPECT_EQ(send(text + "\"}"), 0);
    const auto entry = sim_wait_received(sim.get(), "long", kPatienceMs);
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->text.size(), 65535U);
    EXPECT_EQ(sim_stats(sim.get()).frames_in, 2U);
    EXPECT_EQ(sim_stats(sim.get()).connections, 1U);
}

TEST_F(ssl_socket_test, session_tickets_do_not_end_a_wait) {
    connect_through();
    const deadline_t wait = deadline_in(200);
    EXPECT_EQ(receive(200), CLOUD_SVR_E_NOTHING);
    EXPECT_EQ(deadline_left(wait), 0U);
    EXPECT_EQ(log.text(), "");
}

TEST_F(ssl_socket_test, frames_that_came_together_are_delivered_at_once) {
    connect_through();
    ASSERT_TRUE(sim_send_raw(sim.get(), sim_newest, sim_frame("[1]") + sim_frame("[2]")));
    expect_frame(kPatienceMs, "[1]");
    expect_frame(0, "[2]");
    const std::string texts[] = {"[3]", "[\"" + std::string(16000, 'x') + "\"]", "[5]"};
    for (const std::string& text : texts) {
        ASSERT_TRUE(sim_send(sim.get(), sim_newest, text));  // records of their own
    }
    for (const std::string& text : texts) {
        expect_frame(kPatienceMs, text);
    }
    EXPECT_EQ(receive(0), CLOUD_SVR_E_NOTHING);
}

TEST_F(ssl_socket_test, what_is_no_frame) {
    for (const std::string& bytes : {std::string("\xB2\xA1"), sim_frame(""), sim_frame("{")}) {
        connect_through();
        sim_send_raw(sim.get(), sim_newest, bytes);
        EXPECT_EQ(receive(kPatienceMs), CLOUD_SVR_E_FORMAT);
        EXPECT_EQ(ssl_socket_disconnect(socket), 0);
    }
    connect_through();
    sim_send_raw(sim.get(), sim_newest, sim_frame("[1]").substr(0, 5));
    sim_send_raw(sim.get(), sim_newest, "1]");  // a body in two records
    EXPECT_EQ(receive(kPatienceMs), CLOUD_SVR_E_INCOMPLETE);
    EXPECT_TRUE(log.has("- fail to receive the json, code=1\n"));
}

TEST_F(ssl_socket_test, the_end_of_a_connection) {
    connect_through();
    sim_close(sim.get(), sim_newest, sim_kind_t::close_tcp);
    EXPECT_EQ(receive(kPatienceMs), CLOUD_SVR_E_INCOMPLETE);
    EXPECT_EQ(ssl_socket_disconnect(socket), 0);
    connect_through();
    sim_close(sim.get(), sim_newest);
    EXPECT_EQ(receive(kPatienceMs), CLOUD_SVR_E_INCOMPLETE);
    EXPECT_EQ(ssl_socket_get_status(socket), 0);
    log.clear();
    EXPECT_EQ(send("{}"), CLOUD_SVR_E_NO_CONNECTION);
    EXPECT_TRUE(log.has("- the ssl_socket_t is out of connection\n"));
    const mutex_lock_t held(socket->lock);
    tls_close(&socket->tls);  // which nobody else does from here on
}

TEST_F(ssl_socket_test, a_frame_stalled_half_way_holds_up_nobody_in_either_direction) {
    connect_through();
    const deadline_t stall = deadline_in(SSL_SOCKET_STALL_MS);
    sim_send_raw(sim.get(), sim_newest, "\xA1\xB2");
    std::jthread reader([&] { EXPECT_EQ(receive(kPatienceMs), CLOUD_SVR_E_NOTHING); });
    while (socket->read_turn.try_lock()) {  // until somebody reads
        socket->read_turn.unlock();
        std::this_thread::yield();
    }
    EXPECT_EQ(send(R"({"method":"meanwhile","id":2})"), 0);
    sim_do(sim.get(), sim_newest, {sim_kind_t::stop_reading, ""});
    std::jthread writer([&] {
        while (send("\"" + std::string(60000, 'x') + "\"") == 0) {
        }
    });
    struct pollfd item = {-1, POLLOUT, 0};
    do {  // until no more fits in
        const mutex_lock_t held(socket->lock);
        item.fd = socket->tls.fd;
    } while (poll(&item, 1, 0) == 1);
    EXPECT_EQ(ssl_socket_disconnect(socket), 0);
    reader.join();
    writer.join();
    EXPECT_GT(deadline_left(stall), 0U);
}

TEST_F(ssl_socket_test, an_attempt_that_the_cloud_never_answers_ends_when_interrupted) {
    behaviour.answer_tls = false;
    sim_set_behaviour(sim.get(), behaviour);
    const deadline_t handshake = deadline_in(TLS_HANDSHAKE_MS);
    std::jthread connecting([&] { EXPECT_EQ(connect(), CLOUD_SVR_E_NO_CONNECTION); });
    EXPECT_TRUE(sim_wait_connections(sim.get(), 1, kPatienceMs));
    EXPECT_EQ(ssl_socket_disconnect(socket), 0);  // doesn't wait for the attempt either
    EXPECT_EQ(ssl_socket_get_status(socket), 0);
    ssl_socket_interrupt(socket);
    connecting.join();
    EXPECT_GT(deadline_left(handshake), 0U);
    EXPECT_EQ(ssl_socket_get_status(socket), 0);
}

TEST_F(ssl_socket_test, who_waited_on_an_earlier_connection_takes_no_frame_of_the_next) {
    connect_through();
    const uint32_t earlier = ssl_socket_get_connection(socket);
    std::jthread waiter([&] {
        json_ptr none;
        EXPECT_LT(ssl_socket_rcv_on(socket, earlier, kPatienceMs, &none), 0);
        EXPECT_EQ(none, nullptr);
    });
    EXPECT_EQ(ssl_socket_disconnect(socket), 0);
    connect_through();
    ASSERT_TRUE(sim_send(sim.get(), sim_newest, "[1]"));
    waiter.join();
    EXPECT_EQ(ssl_socket_rcv_on(socket, earlier, kPatienceMs, &json), CLOUD_SVR_E_NOTHING);
    expect_frame(kPatienceMs, "[1]");
}

TEST_F(ssl_socket_test, frames_of_many_senders_never_mix_while_another_receives) {
    connect_through();
    constexpr int rounds = 40;
    std::vector<std::jthread> senders;
    for (const size_t size : {1U, 15000U, 30000U, 60000U}) {
        senders.emplace_back([&, text = R"({"method":"m","id":2,"p":")" + std::string(size, 'x')] {
            for (int i = 0; i < rounds; ++i) {
                ASSERT_EQ(send(text + "\"}"), 0);
            }
        });
    }
    for (int i = 0; i < rounds; ++i) {
        ASSERT_TRUE(sim_send(sim.get(), sim_newest, "[" + std::to_string(i) + "]"));
        expect_frame(kPatienceMs, "[" + std::to_string(i) + "]");
    }
    const auto all = [](const sim_stats_t& stats) { return stats.requests >= 4 * rounds; };
    EXPECT_TRUE(sim_wait_stats(sim.get(), all, kPatienceMs));
    EXPECT_EQ(sim_stats(sim.get()).faults, 0U);
}

// With "recover".
struct ssl_socket_recover_test : ssl_socket_test {
    link_options_t options = {};

    ssl_socket_recover_test() {
        options.recover = true;
        owned.reset(ssl_socket_init("none.cer", &options));
        socket = owned.get();
    }
    ~ssl_socket_recover_test() override { owned.reset(); }

    void expect_lost(const std::string& why, uint32_t connection) {
        EXPECT_TRUE(log.has("- the connection is lost: " + why)) << why;
        EXPECT_EQ(ssl_socket_get_status(socket), 0);
        EXPECT_EQ(ssl_socket_rcv_on(socket, connection, kPatienceMs, &json),
                  CLOUD_SVR_E_INCOMPLETE);
        const mutex_lock_t held(socket->lock);
        EXPECT_TRUE(socket->tls.fd == 0 && socket->tls.ssl == nullptr &&
                    socket->tls.ctx == nullptr && socket->cer_file != nullptr);
    }
};

TEST_F(ssl_socket_recover_test, the_kernel_finds_a_peer_that_vanishes_within_two_minutes) {
    connect_through();
    const mutex_lock_t held(socket->lock);
    const auto option = [fd = socket->tls.fd](int name) {
        int value = -1;
        socklen_t size = sizeof(value);
        getsockopt(fd, IPPROTO_TCP, name, &value, &size);
        return value;
    };
    EXPECT_LE(option(TCP_KEEPIDLE) + option(TCP_KEEPCNT) * option(TCP_KEEPINTVL), 120);
    EXPECT_GT(option(TCP_USER_TIMEOUT), 0);
    EXPECT_LE(option(TCP_USER_TIMEOUT), 60000);  // old kernels take twice as long
}

TEST_F(ssl_socket_recover_test, what_no_further_frame_can_follow_is_a_loss) {
    const std::string broken = "what has come is not a whole frame\n";
    const std::pair<sim_step_t, std::string> losses[] = {
        {{sim_kind_t::close, ""}, "closed by the cloud\n"},
        {{sim_kind_t::close_tcp, ""}, ""},
        {{sim_kind_t::reset, ""}, "Connection reset by peer\n"},
        {{sim_kind_t::raw, "\xB2\xA1"}, broken},
        {{sim_kind_t::raw, "\xA1"}, broken},
        {{sim_kind_t::raw, sim_frame("[1]").substr(0, 5)}, broken},
    };
    for (const auto& [step, why] : losses) {
        connect_through();
        for (const std::string text : {"", "{"}) {  // no text, but frames: none
            sim_send_raw(sim.get(), sim_newest, sim_frame(text));
            EXPECT_EQ(receive(kPatienceMs), CLOUD_SVR_E_FORMAT);
        }
        EXPECT_EQ(receive(0), CLOUD_SVR_E_NOTHING);
        EXPECT_FALSE(log.has("lost"));
        const uint32_t connection = ssl_socket_get_connection(socket);
        sim_do(sim.get(), sim_newest, step);
        EXPECT_LE(receive(kPatienceMs), CLOUD_SVR_E_FORMAT);
        expect_lost(why, connection);
    }
}

TEST_F(ssl_socket_recover_test, a_send_that_finds_the_loss_leaves_the_next_connection_alone) {
    connect_through();
    const uint32_t connection = ssl_socket_get_connection(socket);
    sim_close(sim.get(), sim_newest, sim_kind_t::reset);
    while (send("{}") == 0) {
    }
    expect_lost("", connection);
    connect_through();
    EXPECT_EQ(ssl_socket_rcv_on(socket, connection, kPatienceMs, &json), CLOUD_SVR_E_INCOMPLETE);
    EXPECT_EQ(ssl_socket_get_status(socket), 1);
}
