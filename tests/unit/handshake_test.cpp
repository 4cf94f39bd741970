#include "cloud/handshake.h"

#include "capture.h"
#include "ipc/ipc_socket.h"
#include "ipc/local_client.h"

TEST(handshake_checks_test, requests_and_answers) {
    const auto info = check_request_of_get_device_info;
    const auto legal = check_request_of_is_legal_device;
    const struct {
        int32_t (*check)(const cJSON* json);
        const char* json;
        int32_t code;
    } cases[] = {
        {info, R"({"method":"getDeviceInfo"})", 0},
        {info, R"({"method":"getdeviceinfo"})", CLOUD_SVR_E_METHOD},
        {info, "[]", CLOUD_SVR_E_METHOD},
        {legal, R"({"method":"notifyEvent","params":{"event":"legalDevice"}})", 0},
        {legal, R"({"method":"other","params":{"event":"legalDevice"}})", CLOUD_SVR_E_METHOD},
        {legal, R"({"method":"notifyEvent"})", CLOUD_SVR_E_MEMBER},
        {legal, R"({"method":"notifyEvent","params":{"event":1}})", CLOUD_SVR_E_MEMBER},
        {legal, R"({"method":"notifyEvent","params":{"event":"x"}})", CLOUD_SVR_E_REJECTED},
        {check_response, R"({"error_code":0})", 0},
        {check_response, R"({"error_code":5})", 5},
        {check_response, R"({"result":{}})", CLOUD_SVR_E_MEMBER},
    };
    const capture_t log;
    for (const auto& c : cases) {
        EXPECT_EQ(c.check(json_ptr(cJSON_Parse(c.json)).get()), c.code) << c.json;
    }
}

TEST(handshake_test, a_registered_client_that_never_answers_yields_the_time_out_answer) {
    const capture_t log;
    const owned_t<response_list_t, response_list_destroy> list(response_list_init(50));
    socket_pair_t pair;
    inner_api_t api;
    api.response_list = list.get();
    api.client_fd = local_client_open(pair.here.release());
    const json_ptr request(cJSON_Parse("{}"));
    const json_ptr answer = get_response_of_cloud_request(&api, 5, request.get());
    EXPECT_EQ(json_get_int(answer.get(), "error_code"), CLOUD_SVR_E_TIMEOUT);
    text_ptr asked;
    EXPECT_EQ(ipc_socket_recv_timed(pair.there.fd, 0, &asked), 0);
    local_client_close(api.client_fd);
    EXPECT_EQ(get_response_of_cloud_request(&api, 6, request.get()), nullptr);
}
