// The examples of docs/protocol.md, whose path PROTOCOL_DOC is: what a client may send is taken,
// and what the daemon sends is printed like that.
#include <sstream>

#include "capture.h"
#include "cloud/inner_api.h"
#include "ipc/cloud_svr_message.h"
#include "ipc/ipc_socket.h"
#include "ipc/local_client.h"
#include "server/cloud_svr_handle.h"

// The local socket's examples, by the direction that the text before them names.
static std::stringstream examples(bool to_daemon) {
    std::ifstream document(PROTOCOL_DOC);
    std::stringstream found;
    bool shown = false;
    for (std::string line; std::getline(document, line) && line != "# The cloud link";) {
        const auto says = [&](const char* part) { return line.find(part) != std::string::npos; };
        shown = says("Client to daemon")   ? to_daemon
                : says("Daemon to client") ? !to_daemon
                                           : shown;
        if (shown && line.rfind('{', 0) == 0) {
            found << line << '\n';
        }
    }
    return found;
}

struct protocol_doc_test : captured_t {
    socket_pair_t ends;
    int32_t client = local_client_open(ends.here.release());

    ~protocol_doc_test() override { local_client_close(client); }
    std::string heard() const {
        text_ptr text;
        EXPECT_EQ(ipc_socket_recv_timed(ends.there.fd, 0, &text), 0);
        return text == nullptr ? "" : text.get();
    }
};

TEST_F(protocol_doc_test, what_a_client_sends_is_taken) {
    char host[] = "127.0.0.1", none[] = "";
    const config_t config = {none, nullptr, host, 1, 1000,
                             50,   9,       9,    0, nullptr};  // nobody listens there
    const owned_t<inner_api_t, inner_api_destroy> api(inner_api_init(&config));
    const std::string answers = examples(false).str();
    std::stringstream messages = examples(true);
    for (std::string text; std::getline(messages, text);) {
        cloud_svr_handle_message(api.get(), client, text.c_str());
        if (text.find("inner_method") != std::string::npos) {
            const std::string answer = heard();
            const std::string head = answer.substr(0, answer.find("error_code\":") + 12);
            EXPECT_NE(answers.find(head), std::string::npos) << answer;
        }
    }
    EXPECT_FALSE(log.has("fail to get the ") || log.has("fail to parse the "));
}

TEST_F(protocol_doc_test, what_the_daemon_sends_looks_like_that) {
    int compared = 0;
    std::stringstream messages = examples(false);
    for (std::string text; std::getline(messages, text);) {
        const json_ptr json(cJSON_Parse(text.c_str()));
        const cJSON* const params = json_get(json.get(), "inner_params");
        const cJSON* const result = json_get(json.get(), "inner_result");
        if (const char* const request = json_get_string(params, "request")) {
            cloud_svr_request_client(client, json_get_int(json.get(), "inner_id"), request);
        } else if (const char* const hello = json_get_string(params, "response")) {
            cloud_svr_notify_client_for_hello_cloud(client, hello);
        } else if (const char* const response = json_get_string(result, "response")) {
            cloud_svr_notify_message(client, json_get_int(result, "id"), response);
        } else if (json_get(json.get(), "inner_method") != nullptr) {
            cloud_svr_request_client_for_hello_cloud(client);
        } else {
            continue;
        }
        EXPECT_EQ(heard(), text);
        ++compared;
    }
    EXPECT_EQ(compared, 5);
}
