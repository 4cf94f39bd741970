#include "ipc/cloud_svr_message.h"

#include "cloud_svr_codes.h"
#include "ipc/local_client.h"
#include "util/json.h"
#include "util/log.h"

namespace {

int32_t object_failed() {
    LOG_ERROR("fail to create a new json object");
    return CLOUD_SVR_E_RESOURCE;
}

bool arguments_are_bad(int32_t client, const char* text) {
    if (client != 0 && text != nullptr) {
        return false;
    }
    LOG_ERROR("the client's file description or message is NULL");
    return true;
}

// {"inner_method": method, "inner_params": {name: text}} behind what `outer` already holds.
int32_t request_send(int32_t client, json_ptr outer, const char* method, const char* name,
                     const char* text) {
    json_ptr params(cJSON_CreateObject());
    if (outer == nullptr || params == nullptr ||
        !json_add_string(outer.get(), "inner_method", method) ||
        !json_add_string(params.get(), name, text) ||
        !json_add(outer.get(), "inner_params", std::move(params))) {
        return object_failed();
    }
    return send_to_client(client, outer.get());
}

}  // namespace

int32_t send_to_client(int32_t client, const cJSON* json) {
    const text_ptr text = json_print(json);
    if (text == nullptr) {
        LOG_ERROR("fail to get the json string");
        return CLOUD_SVR_E_RESOURCE;
    }
    const int32_t code = local_client_send(client, text.get());
    if (code != 0) {
        LOG_ERROR("fail to send the message to the client, error=%d", code);
    }
    return code;
}

void cloud_svr_notify_message(int32_t client, int32_t id, const char* response) {
    if (arguments_are_bad(client, response)) {
        return;
    }
    const json_ptr outer(cJSON_CreateObject());
    json_ptr result(cJSON_CreateObject());
    if (outer == nullptr || result == nullptr ||
        !json_add_int(outer.get(), "inner_error_code", 0) ||
        !json_add_int(result.get(), "id", id) ||
        !json_add_string(result.get(), "response", response) ||
        !json_add(outer.get(), "inner_result", std::move(result))) {
        (void)object_failed();
        return;
    }
    (void)send_to_client(client, outer.get());
}

int32_t cloud_svr_request_client(int32_t client, int32_t id, const char* request) {
    if (arguments_are_bad(client, request)) {
        return CLOUD_SVR_E_ARGUMENT;
    }
    json_ptr outer(cJSON_CreateObject());
    if (outer == nullptr || !json_add_int(outer.get(), "inner_id", id)) {
        return object_failed();
    }
    return request_send(client, std::move(outer), "cloud_request", "request", request);
}

int32_t cloud_svr_request_client_for_hello_cloud(int32_t client) {
    if (client == 0) {
        LOG_ERROR("the client's file description is NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    const json_ptr outer(cJSON_CreateObject());
    if (outer == nullptr ||
        !json_add_string(outer.get(), "inner_method", "request_of_hello_cloud")) {
        return object_failed();
    }
    return send_to_client(client, outer.get());
}

int32_t cloud_svr_notify_client_for_hello_cloud(int32_t client, const char* response) {
    if (arguments_are_bad(client, response)) {
        return CLOUD_SVR_E_ARGUMENT;
    }
    return request_send(client, json_ptr(cJSON_CreateObject()), "response_of_hello_cloud",
                        "response", response);
}
