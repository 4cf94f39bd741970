// The clients' handles, and what the daemon writes to them.
#include "ipc/local_client.h"

#include <poll.h>

#include "capture.h"
#include "ipc/cloud_svr_message.h"
#include "ipc/ipc_socket.h"

struct local_client_test : captured_t {
    socket_pair_t pair, next;
    int32_t client = local_client_open(pair.here.release());
    text_ptr text;

    ~local_client_test() override { local_client_close(client); }

    // What has come out at the other end, if anything.
    const char* sent(const socket_pair_t& where) {
        text.reset();
        return ipc_socket_recv_timed(where.there.fd, 0, &text) == 0 ? text.get() : nullptr;
    }
};

TEST_F(local_client_test, messages_as_they_are_written) {
    cloud_svr_notify_message(client, 3, R"({"a":0})");
    EXPECT_STREQ(sent(pair),
                 R"({"inner_error_code":0,"inner_result":{"id":3,"response":"{\"a\":0}"}})");
    EXPECT_EQ(cloud_svr_request_client(client, 4, "{}"), 0);
    EXPECT_STREQ(
        sent(pair),
        R"({"inner_id":4,"inner_method":"cloud_request","inner_params":{"request":"{}"}})");
    EXPECT_EQ(cloud_svr_request_client_for_hello_cloud(client), 0);
    EXPECT_STREQ(sent(pair), R"({"inner_method":"request_of_hello_cloud"})");
    EXPECT_EQ(cloud_svr_notify_client_for_hello_cloud(client, "{}"), 0);
    EXPECT_STREQ(sent(pair),
                 R"({"inner_method":"response_of_hello_cloud","inner_params":{"response":"{}"}})");
    EXPECT_EQ(cloud_svr_request_client(0, 4, "{}"), CLOUD_SVR_E_ARGUMENT);
    EXPECT_EQ(cloud_svr_notify_client_for_hello_cloud(client, nullptr), CLOUD_SVR_E_ARGUMENT);
    EXPECT_EQ(sent(pair), nullptr);
}

TEST_F(local_client_test, a_closed_handle_reaches_nobody_who_has_its_number) {
    const int number = local_client_fd(client);
    while (!local_client_is_waiting(client)) {
        ASSERT_EQ(local_client_send(client, std::string(50000, 'x').c_str()), 0);
    }
    local_client_close(client);
    dup2(next.here.fd, number);  // first anything has the number, then a client
    EXPECT_EQ(local_client_send(client, "x"), CLOUD_SVR_E_LOCAL_SEND);
    const int32_t other = local_client_open(number);
    EXPECT_EQ(local_client_send(client, "x"), CLOUD_SVR_E_LOCAL_SEND);
    EXPECT_FALSE(local_client_is_open(client));
    EXPECT_FALSE(local_client_is_waiting(other));
    local_client_flush(client);
    local_client_close(client);
    EXPECT_EQ(local_client_send(other, "y"), 0);
    EXPECT_STREQ(sent(next), "y");
    local_client_close(other);
    EXPECT_EQ(local_client_send(INT32_MIN, "x"), CLOUD_SVR_E_LOCAL_SEND);
}

TEST_F(local_client_test, frames_of_many_senders_never_mix) {
    std::atomic<int> accepted{0};
    int received = 0;
    std::jthread reader([&] {
        for (; ipc_socket_recv(pair.there.fd, &text) == 0; ++received) {
            const std::string all(text.get());
            ASSERT_EQ(all, std::string(all.size(), all[0]));
        }
    });
    std::vector<std::jthread> senders;
    for (char letter = 'a'; letter < 'e'; ++letter) {
        senders.emplace_back([&, letter] {
            for (size_t size = 1; size < 40000; size += 500) {
                accepted += local_client_send(client, std::string(size, letter).c_str()) == 0;
                local_client_flush(client);
            }
        });
    }
    senders.clear();
    while (local_client_is_waiting(client)) {
        struct pollfd item = {local_client_fd(client), POLLOUT, 0};
        poll(&item, 1, 1000);
        local_client_flush(client);
    }
    local_client_close(client);
    reader.join();
    EXPECT_GT(accepted, 10);
    EXPECT_EQ(received, accepted);
}
