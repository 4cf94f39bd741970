#include "cloud/handshake.h"

#include <stdlib.h>
#include <string.h>

#include "cloud_svr_codes.h"
#include "ipc/cloud_svr_message.h"
#include "ipc/local_client.h"
#include "util/log.h"

namespace {

constexpr int kHeartbeatAttempts = 3;
constexpr int kRandomSeconds = 256;

typedef int32_t (*check_fn)(const cJSON* request);

// `final` is set when no further attempt is to be made whatever the code.
int32_t heartbeat_judge(const cJSON* answer, int32_t id, bool* final) {
    *final = true;
    if (json_get(answer, "id") == nullptr || json_get(answer, "error_code") == nullptr) {
        LOG_ERROR("fail to parse the response of the heartBeat");
        return CLOUD_SVR_E_FORMAT;
    }
    if (json_get_int(answer, "id") != id) {
        LOG_ERROR("the message id of the heartBeat does not match");
        return CLOUD_SVR_E_MESSAGE_ID;
    }
    *final = false;
    const int32_t code = json_get_int(answer, "error_code");
    if (code != 0) {
        LOG_ERROR("the error code in the response of the heartBeat=%d", code);
    }
    return code;
}

int32_t heartbeat_attempt(inner_api_t* api, bool* final) {
    const int32_t id = heartbeat_async(api);
    if (id < 0) {
        LOG_ERROR("fail to generic the message id, error=%d", id);
        return id;
    }
    json_ptr answer;
    const int32_t code = ssl_socket_rcv(api->ssl_socket, api->request_timeout_ms, &answer);
    msg_id_put_to_idle(api->msg_id_pool, id);
    if (code != 0) {
        LOG_ERROR("fail to get the response of the heartBeat, error=%d", code);
        return code;
    }
    return heartbeat_judge(answer.get(), id, final);
}

int32_t heartbeat_once(inner_api_t* api) {
    int32_t code = 0;
    for (int attempt = 0; attempt < kHeartbeatAttempts; ++attempt) {
        bool final = false;
        code = heartbeat_attempt(api, &final);
        if (final || code != CLOUD_SVR_E_NO_CONNECTION || inner_is_lost(api)) {
            break;
        }
    }
    return code;
}

int32_t request_answer(inner_api_t* api, int32_t id, const cJSON* request) {
    const json_ptr answer = get_response_of_cloud_request(api, id, request);
    if (answer == nullptr) {
        LOG_ERROR("fail to get the response of the request");
        return CLOUD_SVR_E_FORMAT;
    }
    int32_t code = inner_send_with_id(api, answer.get(), id);
    if (code != 0) {
        LOG_ERROR("fail to send the response to the cloud, error=%d", code);
        return code;
    }
    code = check_response(answer.get());
    if (code != 0) {
        LOG_ERROR("fail to check the response, error=%d", code);
    }
    return code;
}

// Answers the cloud's next request, which must pass the check.
int32_t respond_cloud_request(inner_api_t* api, check_fn check) {
    json_ptr request;
    int32_t code = ssl_socket_rcv(api->ssl_socket, api->request_timeout_ms, &request);
    if (code != 0) {
        LOG_ERROR("fail to receive the request from the cloud, error=%d", code);
        return code;
    }
    code = check(request.get());
    if (code != 0) {
        LOG_ERROR("fail to check the request from the cloud, error=%d", code);
        return code;
    }
    if (json_get(request.get(), "id") == nullptr) {
        LOG_ERROR("fail to get the message id from the request");
        return CLOUD_SVR_E_FORMAT;
    }
    const int32_t id = json_get_int(request.get(), "id");
    cJSON_DeleteItemFromObject(request.get(), "id");
    return request_answer(api, id, request.get());
}

int32_t handshake_default(inner_api_t* api) {
    LOG_DEBUG("begin to handshake default...");
    int32_t code = heartbeat_once(api);
    if (code == 0) {
        code = respond_cloud_request(api, check_request_of_get_device_info);
    }
    if (code == 0) {
        code = respond_cloud_request(api, check_request_of_is_legal_device);
    }
    if (code == 0) {
        LOG_DEBUG("end to handshake default...");
    }
    return code;
}

int32_t handshake_by_kit(inner_api_t* api) REQUIRES(api->lock) {
    const cloud_kit_func_t* const func = cloud_kit_get_func(api->cloud_kit);
    if (func == nullptr) {
        LOG_ERROR("fail to get the functions from the cloud-kit.so");
        return CLOUD_SVR_E_RESOURCE;
    }
    return func->build_request_of_hello_cloud != nullptr ? handshake_hello_cloud(api)
                                                         : handshake_default(api);
}

int32_t handshake_by_mode(inner_api_t* api) REQUIRES(api->lock) {
    if (api->kit_loaded == 0) {
        return api->client_hello_cloud != 0 ? handshake_hello_cloud(api) : handshake_default(api);
    }
    return api->kit_loaded == 1 ? handshake_by_kit(api) : CLOUD_SVR_E_GENERAL;
}

int32_t get_response_of_cloud_request_by_kit(inner_api_t* api, const char* request,
                                             char** response) {
    const cloud_kit_func_t* const func = cloud_kit_get_func(api->cloud_kit);
    if (func == nullptr || func->respond_cloud == nullptr) {
        LOG_ERROR("fail to get the functions from the cloud-kit.so");
        return CLOUD_SVR_E_RESOURCE;
    }
    (void)func->respond_cloud(request, response);
    if (*response == nullptr) {
        LOG_ERROR("fail to get the response of the request");
        return CLOUD_SVR_E_GENERAL;
    }
    return 0;
}

int32_t get_response_of_cloud_request_by_client(inner_api_t* api, int32_t id, const char* request,
                                                char** response) {
    int32_t code = response_data_add(api->response_list, id);
    if (code != 0) {
        LOG_ERROR("fail to add the message id to the response list, error=%d", code);
        return code;
    }
    const int32_t client = api->client_fd;
    code = cloud_svr_request_client(client, id, request);
    if (code != 0) {
        LOG_ERROR("fail to send the request to the client, error=%d, client=%d", code,
                  local_client_fd(client));
        return code;
    }
    return response_data_wait(api->response_list, id, response);
}

int32_t response_get(inner_api_t* api, int32_t id, const char* request, char** response) {
    if (api->kit_loaded == 1) {
        return get_response_of_cloud_request_by_kit(api, request, response);
    }
    if (api->kit_loaded == 0) {
        return get_response_of_cloud_request_by_client(api, id, request, response);
    }
    return CLOUD_SVR_E_GENERAL;
}

}  // namespace

int32_t handshake(inner_api_t* api) {
    if (api == nullptr) {
        LOG_ERROR("the inner_api_t is NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    LOG_DEBUG("begin to handshake...");
    const int32_t code = handshake_by_mode(api);
    LOG_DEBUG("end to handshake...");
    return code;
}

int32_t heartbeat_async(inner_api_t* api) {
    if (api == nullptr) {
        LOG_ERROR("the inner_api_t is NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    const msg_data_t data = {monotonic_ms_get(), api->request_timeout_ms, 0};
    const int32_t id = msg_id_get_from_idle(api->msg_id_pool, &data);
    if (id < 0) {
        LOG_ERROR("fail to generic the message id, error=%d", id);
        return id;
    }
    const json_ptr request(cJSON_CreateObject());
    if (request == nullptr || !json_add_string(request.get(), "method", "heartBeat") ||
        !json_add_int(request.get(), "id", id)) {
        LOG_ERROR("fail to create a new json object");
        msg_id_put_to_idle(api->msg_id_pool, id);
        return CLOUD_SVR_E_RESOURCE;
    }
    const int32_t code = ssl_socket_send(api->ssl_socket, request.get());
    if (code != 0) {
        LOG_ERROR("fail to send the heartBeat, error=%d", code);
        msg_id_put_to_idle(api->msg_id_pool, id);
        return code;
    }
    return id;
}

json_ptr get_response_of_cloud_request(inner_api_t* api, int32_t id, const cJSON* request) {
    const text_ptr text = json_print(request);
    if (text == nullptr) {
        LOG_ERROR("fail to get the json string of the request");
        return nullptr;
    }
    char* response = nullptr;
    const int32_t code = response_get(api, id, text.get(), &response);
    const text_ptr owned(response);
    if (code != 0) {
        LOG_ERROR("fail to get the response of the request, error=%d", code);
        return nullptr;
    }
    return json_ptr(cJSON_Parse(response));
}

int32_t check_response(const cJSON* response) {
    if (json_get(response, "error_code") == nullptr) {
        LOG_ERROR("fail to get the error code from the response");
        return CLOUD_SVR_E_MEMBER;
    }
    const int32_t code = json_get_int(response, "error_code");
    if (code != 0) {
        LOG_ERROR("the error code of the response=%d", code);
    }
    return code;
}

int32_t check_request_of_get_device_info(const cJSON* request) {
    const char* const method = json_get_string(request, "method");
    if (method == nullptr) {
        LOG_ERROR("fail to get the method from the request");
        return CLOUD_SVR_E_METHOD;
    }
    if (strcmp(method, "getDeviceInfo") != 0) {
        LOG_ERROR("the method is not \"getDeviceInfo\"");
        return CLOUD_SVR_E_METHOD;
    }
    return 0;
}

int32_t check_request_of_is_legal_device(const cJSON* request) {
    const char* const method = json_get_string(request, "method");
    if (method == nullptr) {
        LOG_ERROR("fail to get the method from the request");
        return CLOUD_SVR_E_METHOD;
    }
    if (strcmp(method, "notifyEvent") != 0) {
        LOG_ERROR("the method is not \"notifyEvent\"");
        return CLOUD_SVR_E_METHOD;
    }
    const cJSON* const params = json_get(request, "params");
    if (params == nullptr) {
        LOG_ERROR("fail to get the parameters from the request");
        return CLOUD_SVR_E_MEMBER;
    }
    const char* const event = json_get_string(params, "event");
    if (event == nullptr) {
        LOG_ERROR("fail to get the event from the parameters");
        return CLOUD_SVR_E_MEMBER;
    }
    if (strcmp(event, "legalDevice") != 0) {
        LOG_ERROR("the event is \"%s\", not \"legalDevice\"", event);
        return CLOUD_SVR_E_REJECTED;
    }
    return 0;
}

int32_t random_delay_ms() {
    return (rand() % kRandomSeconds + 1) * 1000;
}
