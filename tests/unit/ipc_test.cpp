#include <cerrno>

#include "capture.h"
#include "ipc/ipc_socket.h"

struct ipc_test : captured_t {
    const std::string magic = "\xA1\xB2", zeros = std::string(4, '\0'), most = "\xFF\xFF\xFF\xFF";
    socket_pair_t pair;
    text_ptr text;
    ipc_reader_t reader;
    ipc_outbox_t outbox;
};

TEST_F(ipc_test, frames_good_and_bad) {
    const auto expect = [&](const std::string& bytes, bool end, int32_t code) {
        socket_pair_t own;
        own.write_there(bytes);
        if (end) {
            own.there.reset();
        }
        const int32_t got = ipc_socket_recv_timed(own.here.fd, 20, &text);
        EXPECT_EQ(got, code) << testing::PrintToString(bytes) << end;
        EXPECT_STREQ(text.get(), code == 0 ? "" : nullptr);
        text.reset();
    };
    expect("", false, CLOUD_SVR_E_NOTHING);
    expect("", true, CLOUD_SVR_E_LOCAL_CLOSED);
    expect(magic + zeros, false, 0);
    expect(magic + zeros, true, 0);
    expect("\xB2\xA1" + zeros, false, CLOUD_SVR_E_FORMAT);
    expect("\xA1\xB3" + zeros, true, CLOUD_SVR_E_FORMAT);
    for (const auto& bytes :
         {magic.substr(0, 1), magic, magic + "\1", magic + most, magic + most + "a"}) {
        expect(bytes, false, CLOUD_SVR_E_INCOMPLETE);
        expect(bytes, true, CLOUD_SVR_E_LOCAL_CLOSED);
    }
}

TEST_F(ipc_test, an_announced_length_costs_no_memory) {
    pair.write_there(magic + most);
    for (const size_t size : {1U, 5000U, 60000U}) {
        pair.write_there(std::string(size, 'x'));
        EXPECT_EQ(ipc_reader_step(&reader, pair.here.fd, &text), IPC_READER_MORE);
        EXPECT_GE(reader.have, size);
        EXPECT_LE(reader.capacity, 2 * reader.have + 1024);
    }
}

TEST_F(ipc_test, a_frame_in_single_bytes_and_what_follows_garbage) {
    for (const char byte : magic + std::string("\0\0\0\4hey!", 8)) {
        pair.write_there(std::string(1, byte));
        const int32_t code = ipc_reader_step(&reader, pair.here.fd, &text);
        EXPECT_EQ(code, byte == '!' ? 0 : IPC_READER_MORE);
        EXPECT_EQ(ipc_reader_left(&reader) < 0, byte == '!');
    }
    EXPECT_STREQ(text.get(), "hey!");
    pair.write_there("XY" + magic + zeros + magic + std::string("\0\0\0\3b\0c", 7));
    for (const int32_t code : {int32_t{CLOUD_SVR_E_FORMAT}, 0, 0, IPC_READER_MORE}) {
        EXPECT_EQ(ipc_reader_step(&reader, pair.here.fd, &text), code);
    }
    EXPECT_STREQ(text.get(), "b");
}

TEST_F(ipc_test, addresses) {
    const folder_t folder;
    const std::string longest = folder.path + "/" + std::string(106 - folder.path.size(), 's');
    const descriptor_t server(ipc_socket_init_as_server(longest.c_str()));
    const descriptor_t client(ipc_socket_init_as_client(longest.c_str()));
    EXPECT_TRUE(server.fd >= 0 && client.fd >= 0);
    EXPECT_EQ(ipc_socket_init_as_server(longest.c_str()), CLOUD_SVR_E_LISTEN);  // it exists
    const std::string longer = longest + "s";
    EXPECT_EQ(ipc_socket_init_as_server(longer.c_str()), CLOUD_SVR_E_LISTEN);
    EXPECT_EQ(ipc_socket_init_as_client(longer.c_str()), CLOUD_SVR_E_LOCAL_SEND);
    EXPECT_TRUE(log.has("- fail to bind the unix socket, error=36\n"));
    EXPECT_TRUE(log.has("- fail to connect the unix socket, error=36\n"));
}

TEST_F(ipc_test, big_frames_there_and_back) {
    std::jthread echo([&] {
        text_ptr got;
        while (ipc_socket_recv(pair.there.fd, &got) == 0) {
            ASSERT_EQ(ipc_socket_send(pair.there.fd, got.get()), 0);
        }
    });
    for (const size_t size : {1U, 65536U, 3U << 20}) {
        const std::string sent(size, static_cast<char>('a' + size % 26));
        ASSERT_EQ(ipc_socket_send(pair.here.fd, sent.c_str()), 0);
        ASSERT_EQ(ipc_socket_recv(pair.here.fd, &text), 0);
        ASSERT_TRUE(sent == text.get());
    }
    pair.here.reset();
}

TEST_F(ipc_test, an_outbox_keeps_whole_frames_in_order_up_to_its_limit) {
    const auto body = [](size_t number) {
        return std::to_string(number) + ":" + std::string(number % 7000, 'x');
    };
    size_t accepted = 0;
    for (; ipc_socket_post(pair.here.fd, &outbox, body(accepted).c_str()) == 0; ++accepted) {
        ASSERT_LE(outbox.size - outbox.sent, IPC_OUTBOX_LIMIT);
    }
    for (size_t number = 0; number < accepted; ++number) {
        ASSERT_TRUE(ipc_outbox_flush(&outbox, pair.here.fd));
        ASSERT_EQ(ipc_socket_recv_timed(pair.there.fd, 0, &text), 0);
        ASSERT_EQ(text.get(), body(number));
    }
    EXPECT_TRUE(ipc_outbox_is_empty(&outbox));
    EXPECT_EQ(ipc_socket_recv_timed(pair.there.fd, 0, &text), CLOUD_SVR_E_NOTHING);
    const std::string longer(1U << 20, 'y');  // alone it is kept although it is over the limit
    EXPECT_EQ(ipc_socket_post(pair.here.fd, &outbox, longer.c_str()), 0);
    EXPECT_EQ(ipc_socket_post(pair.here.fd, &outbox, "z"), CLOUD_SVR_E_LOCAL_SEND);
    pair.there.reset();
    EXPECT_FALSE(ipc_outbox_flush(&outbox, pair.here.fd));
    EXPECT_EQ(errno, EPIPE);
}
