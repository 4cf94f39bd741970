// The client library against a daemon that follows a script, and cloud_ctl against bad input.
#include <poll.h>
#include <sys/wait.h>

#include <algorithm>
#include <functional>

#include "capture.h"
#include "cloud_svr_client.h"
#include "ipc/ipc_socket.h"

namespace {

constexpr int kLong = 10000;

std::string frame(const std::string& text) {
    return std::string(ipc_frame_build(text.data(), text.size()).get(), text.size() + 6);
}
std::string greeting(const std::string& type) {
    return frame(R"({"inner_method":"server_notify","inner_params":{"type":)" + type + "}}");
}
// The daemon's answer to a client's call, and the cloud's to the request with that id.
std::string result(int call, int code, int id = 0) {
    return frame(R"({"inner_id":)" + std::to_string(call) + R"(,"inner_error_code":)" +
                 std::to_string(code) + R"(,"inner_result":{"id":)" + std::to_string(id) + "}}");
}
std::string answer(int id, const std::string& text) {
    return frame(R"({"inner_error_code":0,"inner_result":{"id":)" + std::to_string(id) +
                 R"(,"response":")" + text + "\"}}");
}

// Accepts one client, follows the script and hangs up.
struct daemon_t {
    folder_t folder;
    const std::string path = folder.path + "/socket";
    descriptor_t listener{ipc_socket_init_as_server(path.c_str())}, peer;
    owned_t<cloud_svr_client_t, cloud_svr_client_close> client;
    std::thread thread;

    explicit daemon_t(const std::function<void(daemon_t&)>& script)
        : thread([this, script] {
              peer.fd = accept(listener.fd, nullptr, nullptr);
              script(*this);
              peer.reset();
          }) {}
    ~daemon_t() {
        client.reset();
        thread.join();
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
    int connect(int timeout_ms = kLong) {
        cloud_svr_client_t* made = nullptr;
        const int code = cloud_svr_client_connect(&made, path.c_str(), timeout_ms);
        client.reset(made);
        return code;
    }
    // The answer, or the code.
    std::string ask(const std::string& request = "{}", int timeout_ms = kLong) const {
        char* text = nullptr;
        const int code =
            cloud_svr_client_request(client.get(), request.c_str(), timeout_ms, 0, &text);
        const text_ptr owned(text);
        return code == 0 ? text : std::to_string(code);
    }
};

using told_t = std::vector<std::string>;
void tell(void* arg, int code, const char* text) {
    static_cast<told_t*>(arg)->push_back(code == 0 ? text : std::to_string(code));
}

}  // namespace

TEST(client_test, greetings) {
    const auto expect = [](const std::string& bytes, int code) {
        daemon_t daemon([&](const daemon_t& there) {
            there.put(bytes);
            code == CLOUD_SVR_E_TIMEOUT ? (void)there.hear() : void();
        });
        EXPECT_EQ(daemon.connect(code == CLOUD_SVR_E_TIMEOUT ? 20 : kLong), code) << bytes;
        EXPECT_EQ(daemon.client != nullptr, code == 0);
    };
    expect(greeting("0"), 0);
    expect(greeting("1"), CLOUD_SVR_E_REFUSED);
    expect("", CLOUD_SVR_E_LOCAL_CLOSED);
    expect("", CLOUD_SVR_E_TIMEOUT);
    expect(greeting("0").substr(0, 20), CLOUD_SVR_E_TIMEOUT);
    expect("\xA1\xB3garbage", CLOUD_SVR_E_FORMAT);
    expect(frame("{not json"), CLOUD_SVR_E_FORMAT);
    expect(greeting("null"), CLOUD_SVR_E_FORMAT);
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
        daemon_t daemon([&](const daemon_t& there) {
            there.put(greeting("0"));
            there.hear();
            there.put(bytes);
        });
        ASSERT_EQ(daemon.connect(), 0);
        EXPECT_EQ(daemon.ask(), outcome) << bytes;
    };
    const std::string good = result(1, 0, 7) + answer(7, "mine");
    expect("mine", good);
    expect("mine", answer(7, "mine") + result(1, 0, 7));
    expect("mine", result(9, 0, 8) + answer(8, "another's") + good);
    expect("mine",
           frame("{not json") + frame("[1]") + frame("") + frame("{\"inner_id\":[]}") + good);
    expect("mine", good.substr(0, 3) + "~" + good.substr(3, 9) + "~" + good.substr(12));
    expect("-3001", result(1, -3001));
    expect("-1000", result(1, 0, 0));
    expect("-20002",
           result(1, 0, 7) + answer(7, R"({\"error_code\":-20002,\"msg\":\"Request time out\"})"));
    expect("-10100", "\xA1\xB3" + good);
    expect("-1102", result(1, 0, 7));
    expect("-1102", good.substr(0, good.size() - 1));
}

TEST(client_test, callbacks_and_late_answers) {
    daemon_t daemon([](const daemon_t& there) {
        there.put(greeting("0"));
        there.hear();
        there.hear();
        there.put(answer(1, "late") + result(1, 0, 1) + result(2, 0, 1) + answer(1, "second"));
        there.hear();
    });
    told_t told;
    ASSERT_EQ(daemon.connect(), 0);
    cloud_svr_client_t* const client = daemon.client.get();
    EXPECT_EQ(cloud_svr_client_process(client, 0), 0);
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
    static constexpr cloud_svr_agent_t agent = {
        [](void*, const char* request, char** text) {
            *text = string_dup(request);
            return *request == '{' ? 0 : -7;
        },
        [](void*, char** request) { return (*request = string_dup("hello")) == nullptr ? -1 : 0; },
        [](void* arg, const char* text) { tell(arg, 0, text); }, nullptr};
    const auto asked = [](const std::string& text) {
        return frame(R"({"inner_id":5,"inner_method":"cloud_request","inner_params":{"request":")" +
                     text + "\"}}");
    };
    daemon_t daemon([&](const daemon_t& there) {
        there.put(greeting("0"));
        EXPECT_NE(there.hear().find(R"("inner_params":{"hello_cloud":1})"), std::string::npos);
        there.put(frame(R"({"inner_method":"request_of_hello_cloud"})"));
        EXPECT_EQ(there.hear(), R"({"inner_result":{"response":"hello"}})");
        there.put(frame(R"({"inner_method":"response_of_hello_cloud",)"
                        R"("inner_params":{"response":"welcome"}})") +
                  result(1, 0));
        there.hear();
        there.put(asked("{}") + asked("x"));
        EXPECT_EQ(there.hear(),
                  R"({"inner_id":5,"inner_error_code":0,"inner_result":{"response":"{}"}})");
        EXPECT_EQ(there.hear(), R"({"inner_id":5,"inner_error_code":-7})");
        there.put(result(2, 0, 5) + answer(5, "mine"));
        there.hear();
        there.put(result(3, 0) + asked("{}"));
        EXPECT_EQ(there.hear(), R"({"inner_id":5,"inner_error_code":-1})");
    });
    told_t told;
    ASSERT_EQ(daemon.connect(), 0);
    cloud_svr_agent_t mine = agent;
    mine.arg = &told;
    EXPECT_EQ(cloud_svr_client_register(daemon.client.get(), &mine, kLong), 0);
    EXPECT_EQ(daemon.ask(), "mine");
    EXPECT_EQ(told, told_t{"welcome"});
    EXPECT_EQ(cloud_svr_client_unregister(daemon.client.get(), kLong), 0);
    EXPECT_EQ(cloud_svr_client_process(daemon.client.get(), kLong), 1);
}

TEST(client_test, threads_share_a_client) {
    daemon_t daemon([](const daemon_t& there) {
        there.put(greeting("0"));
        for (std::string text = there.hear(); !text.empty(); text = there.hear()) {
            const json_ptr call(cJSON_Parse(text.c_str()));
            const int id = json_get_int(call.get(), "inner_id");
            const char* const request =
                json_get_string(json_get(call.get(), "inner_params"), "request");
            const std::string taken = result(id, 0, id), said = answer(id, request);
            there.put(*request == '-' ? taken : id % 2 == 0 ? said + taken : taken + said);
        }
    });
    ASSERT_EQ(daemon.connect(), 0);
    std::vector<std::thread> threads;
    for (const std::string name : {"1", "2", "3", "-"}) {
        threads.emplace_back([&daemon, name] {
            for (int i = 0; i < 50 && name != "-"; ++i) {
                EXPECT_EQ(daemon.ask(name + std::to_string(i)), name + std::to_string(i));
            }
            name == "-" ? EXPECT_EQ(daemon.ask(name), "-1102") : void();
        });
    }
    std::for_each(threads.begin(), threads.end() - 1, [](std::thread& each) { each.join(); });
    cloud_svr_client_shutdown(daemon.client.get());
    threads.back().join();
}

TEST(cloud_ctl_test, bad_input_is_told_in_one_line) {
    for (const std::string arguments :
         {"1request '{}'", "2request '{no json'", "2request", "2nothing", "1check /none",
          "1reconnect", "2register --answer x", "1register --hello-cloud /none",
          "2register --answer {} --exec x"}) {
        FILE* const output =
            popen((CLOUD_CTL " --socket /none " + arguments.substr(1) + " 2>&1").c_str(), "r");
        char text[1000] = "";
        const size_t size = fread(text, 1, sizeof(text) - 1, output);
        EXPECT_EQ(WEXITSTATUS(pclose(output)), arguments[0] - '0') << arguments;
        EXPECT_EQ(std::count(text, text + size, '\n'), 1) << text;
        EXPECT_TRUE(std::string(text).starts_with("cloud_ctl: ")) << text;
    }
}
