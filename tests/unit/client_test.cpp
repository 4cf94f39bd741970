// The client library against a daemon that follows a script.
#include <poll.h>

#include <functional>

#include "capture.h"
#include "cloud_svr_client.h"
#include "ipc/ipc_socket.h"

namespace {

constexpr int kLong = 10000;

std::string frame(const std::string& text) {
    return std::string(ipc_frame_build(text.data(), text.size()).get(), text.size() + 6);
}
std::string request(const std::string& method, const std::string& params) {
    return frame(R"({"inner_id":5,"inner_method":")" + method + R"(","inner_params":{)" + params +
                 "}}");
}
std::string greeting(const std::string& type) {
    return request("server_notify", "\"type\":" + type);
}
// The daemon's answer to a client's call, and the cloud's to the request with that id.
std::string result(int call, int code, int id = 0) {
    return frame("{\"inner_id\":" + std::to_string(call) + ",\"inner_error_code\":" +
                 std::to_string(code) + ",\"inner_result\":{\"id\":" + std::to_string(id) + "}}");
}
std::string answer(int id, const std::string& text) {
    return frame(R"({"inner_result":{"response":")" + text + "\",\"id\":" + std::to_string(id) +
                 "}}");
}

// Greets one client, follows the script and hangs up.
struct daemon_t {
    folder_t folder;
    const std::string path = folder.path + "/socket";
    descriptor_t listener{ipc_socket_init_as_server(path.c_str())}, peer;
    int connected = 0;
    std::jthread thread;
    owned_t<cloud_svr_client_t, cloud_svr_client_close> client;

    explicit daemon_t(const std::function<void(const daemon_t&)>& script,
                      const std::string& first = greeting("0"), int timeout_ms = kLong) {
        thread = std::jthread([this, script, first] {
            peer.fd = accept(listener.fd, nullptr, nullptr);
            put(first);
            script(*this);
            peer.reset();
        });
        cloud_svr_client_t* made = nullptr;
        connected = cloud_svr_client_connect(&made, path.c_str(), timeout_ms);
        client.reset(made);
    }
    // '~' is a pause that the daemon's own reader would take for the end of a frame.
    void put(const std::string& bytes) const {
        for (const char& byte : bytes) {
            byte == '~' ? poll(nullptr, 0, IPC_FIELD_GRACE_MS + 20)
                        : send(peer.fd, &byte, 1, MSG_NOSIGNAL);
        }
    }
    std::string hear() const {
        text_ptr text;
        return ipc_socket_recv_timed(peer.fd, kLong, &text) == 0 ? text.get() : "";
    }
    // The answer, or the code.
    std::string ask(const std::string& text = "{}") const {
        char* answered = nullptr;
        const int code = cloud_svr_client_request(client.get(), text.c_str(), kLong, 0, &answered);
        const text_ptr owned(answered);
        return code == 0 ? answered : std::to_string(code);
    }
};

using told_t = std::vector<std::string>;
void tell(void* arg, int code, const char* text) {
    static_cast<told_t*>(arg)->push_back(code == 0 ? text : std::to_string(code));
}

}  // namespace

TEST(client_test, greetings) {
    const auto expect = [](int code, const std::string& bytes) {
        const bool late = code == CLOUD_SVR_E_TIMEOUT;
        const auto stay = [late](const daemon_t& there) { late ? (void)there.hear() : void(); };
        const daemon_t daemon(stay, bytes, late ? 20 : kLong);
        EXPECT_EQ(daemon.connected, code) << bytes;
    };
    expect(0, greeting("0"));
    expect(CLOUD_SVR_E_REFUSED, greeting("1"));
    expect(CLOUD_SVR_E_LOCAL_CLOSED, "");
    expect(CLOUD_SVR_E_TIMEOUT, greeting("0").substr(0, 20));
    expect(CLOUD_SVR_E_FORMAT, "\xA1\xB3garbage");
    expect(CLOUD_SVR_E_FORMAT, greeting("{}"));
    const folder_t folder;  // nobody there, then somebody who accepts nobody
    const std::string path = folder.path + "/socket";
    cloud_svr_client_t* client = nullptr;
    EXPECT_EQ(cloud_svr_client_connect(&client, path.c_str(), kLong), CLOUD_SVR_E_LOCAL_SEND);
    const descriptor_t listener(ipc_socket_init_as_server(path.c_str()));
    ASSERT_EQ(listen(listener.fd, 0), 0);
    const descriptor_t first(ipc_socket_init_as_client(path.c_str()));
    EXPECT_EQ(cloud_svr_client_connect(&client, path.c_str(), 20), CLOUD_SVR_E_TIMEOUT);
}

TEST(client_test, answers_to_a_request) {
    const auto expect = [](const std::string& outcome, const std::string& bytes) {
        const daemon_t daemon([&](const daemon_t& there) {
            there.hear();
            there.put(bytes);
        });
        EXPECT_EQ(daemon.ask(), outcome) << bytes;
    };
    const std::string good = result(1, 0, 7) + answer(7, "mine");
    expect("mine", good);
    expect("mine", answer(7, "mine") + result(1, 0, 7));
    expect("mine", result(9, 0, 8) + answer(8, "another's") + good);
    expect("mine", frame("{not json") + frame("[1]") + frame(R"({"inner_id":[]})") + good);
    expect("mine", good.substr(0, 3) + "~" + good.substr(3, 9) + "~" + good.substr(12));
    expect("-3001", result(1, -3001));
    expect("-1000", result(1, 0, 0));
    const std::string late = R"({\"error_code\":-20002,\"msg\":\"Request time out\"})";
    expect("-20002", result(1, 0, 7) + answer(7, late));
    expect("-10100", "\xA1\xB3" + good);
    expect("-1102", good.substr(0, good.size() - 1));
}

TEST(client_test, callbacks_and_late_answers) {
    const daemon_t daemon([](const daemon_t& there) {
        there.hear();
        there.hear();
        there.put(answer(1, "late") + result(1, 0, 1) + result(2, 0, 1) + answer(1, "second"));
        there.hear();
    });
    told_t told;
    cloud_svr_client_t* const client = daemon.client.get();
    EXPECT_EQ(cloud_svr_client_timeout(client), -1);
    EXPECT_EQ(cloud_svr_client_send(client, "{}", 20, 0, tell, &told), 0);
    EXPECT_LE(cloud_svr_client_timeout(client), 20);
    EXPECT_EQ(cloud_svr_client_process(client, -1), 1);
    EXPECT_EQ(told, told_t{"-20002"});
    EXPECT_EQ(daemon.ask(), "second");
    EXPECT_EQ(cloud_svr_client_send(client, "{}", kLong, 0, tell, &told), 0);
    EXPECT_EQ(cloud_svr_client_process(client, -1), CLOUD_SVR_E_LOCAL_CLOSED);
    EXPECT_EQ(cloud_svr_client_send(client, "{}", 0, 0, tell, &told), CLOUD_SVR_E_LOCAL_CLOSED);
    EXPECT_EQ(told, (told_t{"-20002", "-1102"}));
}

TEST(client_test, the_agent_is_asked_while_it_waits) {
    const daemon_t daemon([&](const daemon_t& there) {
        EXPECT_NE(there.hear().find(R"("inner_params":{"hello_cloud":1})"), std::string::npos);
        there.put(request("request_of_hello_cloud", ""));
        EXPECT_EQ(there.hear(), R"({"inner_result":{"response":"hello"}})");
        there.put(request("response_of_hello_cloud", R"("response":"welcome")") + result(1, 0));
        there.hear();
        there.put(request("cloud_request", R"("request":"?")"));
        EXPECT_TRUE(there.hear().ends_with(R"("inner_result":{"response":"?"}})"));
        there.put(result(2, 0, 5) + answer(5, "mine"));
        there.hear();
        there.put(result(3, 0) + request("cloud_request", ""));
        EXPECT_EQ(there.hear(), R"({"inner_id":5,"inner_error_code":-1})");
        EXPECT_EQ(there.hear(), "");  // stays until the client leaves
    });
    told_t told;
    cloud_svr_agent_t agent = {};
    agent.arg = &told;
    agent.on_request = [](void*, const char* asked, char** text) {
        return (*text = string_dup(asked)) == nullptr ? -1 : 0;
    };
    agent.on_hello_request = [](void*, char** text) {
        return (*text = string_dup("hello")) == nullptr ? -1 : 0;
    };
    agent.on_hello_answer = [](void* arg, const char* text) { tell(arg, 0, text); };
    EXPECT_EQ(cloud_svr_client_register(daemon.client.get(), &agent, kLong), 0);
    EXPECT_EQ(daemon.ask(), "mine");
    EXPECT_EQ(told, (told_t{"welcome"}));
    EXPECT_EQ(cloud_svr_client_unregister(daemon.client.get(), kLong), 0);
    EXPECT_EQ(cloud_svr_client_process(daemon.client.get(), kLong), 1);
}

TEST(client_test, threads_share_a_client) {
    const daemon_t daemon([](const daemon_t& there) {
        for (std::string text = there.hear(); !text.empty(); text = there.hear()) {
            const json_ptr call(cJSON_Parse(text.c_str()));
            const int id = json_get_int(call.get(), "inner_id");
            const cJSON* const params = json_get(call.get(), "inner_params");
            const std::string asked = json_get_string(params, "request");
            const std::string taken = result(id, 0, id), said = answer(id, asked);
            there.put(asked == "-" ? taken : id % 2 == 0 ? said + taken : taken + said);
        }
    });
    const std::jthread waits([&] { EXPECT_EQ(daemon.ask("-"), "-1102"); });
    const auto asks = [&](const std::string& text) {
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(daemon.ask(text), text);
        }
    };
    std::jthread other(asks, "1");
    asks("2");
    other.join();
    cloud_svr_client_shutdown(daemon.client.get());
}
