#include <stdlib.h>

#include "cloud/handshake.h"
#include "cloud_svr_codes.h"
#include "ipc/cloud_svr_message.h"
#include "util/log.h"

namespace {

void request_drop(inner_api_t* api) {
    const mutex_lock_t held(api->hello_cloud_lock);
    free(api->request_of_hello_cloud);
    api->request_of_hello_cloud = nullptr;
}

// Takes the text that the client hands in, waiting for it up to request_timeout_ms.
text_ptr request_await(inner_api_t* api) {
    const deadline_t deadline = deadline_in(api->request_timeout_ms);
    const mutex_lock_t held(api->hello_cloud_lock);
    while (api->request_of_hello_cloud == nullptr && !api->stopping) {
        const uint32_t left = deadline_left(deadline);
        if (left == 0) {
            break;
        }
        api->hello_cloud_arrived.wait(api->hello_cloud_lock, left);
    }
    return text_ptr(std::exchange(api->request_of_hello_cloud, nullptr));
}

text_ptr request_from_client(inner_api_t* api) {
    request_drop(api);
    const int32_t code = cloud_svr_request_client_for_hello_cloud(api->client_fd);
    if (code != 0) {
        LOG_ERROR("fail to request the registered client, error=%d", code);
        return nullptr;
    }
    return request_await(api);
}

text_ptr request_from_kit(inner_api_t* api) {
    const cloud_kit_func_t* const func = cloud_kit_get_func(api->cloud_kit);
    char* text = nullptr;
    if (func != nullptr && func->build_request_of_hello_cloud != nullptr) {
        (void)func->build_request_of_hello_cloud(&text);
    }
    return text_ptr(text);
}

text_ptr get_request_of_hello_cloud(inner_api_t* api) {
    text_ptr text = api->kit_loaded == 1 ? request_from_kit(api) : request_from_client(api);
    if (text == nullptr) {
        LOG_ERROR("fail to get the request of helloCloud");
    }
    return text;
}

// The message id that the request went out with, or a negative code.
int32_t send_hello_cloud(inner_api_t* api, cJSON* request) {
    const msg_data_t data = {monotonic_ms_get(), api->request_timeout_ms, 0};
    const int32_t id = msg_id_get_from_idle(api->msg_id_pool, &data);
    if (id < 0) {
        LOG_ERROR("fail to generic the message id, error=%d", id);
        return id;
    }
    const int32_t code = inner_send_with_id(api, request, id);
    if (code != 0) {
        LOG_ERROR("fail to send the request of helloCloud, error=%d", code);
        msg_id_put_to_idle(api->msg_id_pool, id);
        return code;
    }
    return id;
}

void notify_response_of_hello_cloud(inner_api_t* api, const cJSON* answer) {
    const text_ptr text = json_print(answer);
    if (text == nullptr) {
        LOG_ERROR("fail to get the json string of the response");
        return;
    }
    if (api->kit_loaded != 1) {
        (void)cloud_svr_notify_client_for_hello_cloud(api->client_fd, text.get());
        return;
    }
    const cloud_kit_func_t* const func = cloud_kit_get_func(api->cloud_kit);
    if (func == nullptr) {
        LOG_ERROR("fail to get the functions from the cloud-kit.so");
    } else if (func->recv_response_of_hello_cloud == nullptr) {
        LOG_WARN("the function is NULL");
    } else {
        (void)func->recv_response_of_hello_cloud(text.get());
    }
}

// The cloud sends the device away for a while: the session acts on the delay once `lock` is free.
int32_t stop_connect(inner_api_t* api, const cJSON* result) REQUIRES(api->lock) {
    int32_t delay_ms = json_scale(json_get_int(result, "reconnectTime"), 1000);
    if (delay_ms == 0) {
        delay_ms = random_delay_ms();
    }
    LOG_WARN("next time to reconnect is %d ms", delay_ms);
    api->ordered_delay_ms = delay_ms;
    return CLOUD_SVR_E_STOPPED;
}

int32_t check_response_of_hello_cloud(inner_api_t* api, const cJSON* answer) REQUIRES(api->lock) {
    if (json_get(answer, "error_code") == nullptr) {
        LOG_ERROR("fail to get the error code from the response");
        return CLOUD_SVR_E_FORMAT;
    }
    const int32_t code = json_get_int(answer, "error_code");
    if (code != 0) {
        LOG_ERROR("the error code of the response=%d", code);
        return code;
    }
    const cJSON* const result = json_get(answer, "result");
    if (result == nullptr) {
        LOG_ERROR("fail to get the result from the response");
        return CLOUD_SVR_E_FORMAT;
    }
    if (json_get(result, "illegalType") != nullptr) {
        const int32_t type = json_get_int(result, "illegalType");
        if (type != 0) {
            LOG_ERROR("illegal type=%d", type);
            return CLOUD_SVR_E_REJECTED;
        }
        LOG_DEBUG("end to handshake helloCloud...");
        return 0;
    }
    if (json_get(result, "stopConnect") != nullptr) {
        return stop_connect(api, result);
    }
    LOG_ERROR("fail to get the stopConnect from the result");
    return CLOUD_SVR_E_FORMAT;
}

// Receives the answer to the request of that id.
int32_t answer_get(inner_api_t* api, int32_t id, json_ptr* answer) {
    const int32_t code = ssl_socket_rcv(api->ssl_socket, api->request_timeout_ms, answer);
    msg_id_put_to_idle(api->msg_id_pool, id);
    if (code != 0) {
        LOG_ERROR("fail to receive the response of helloCloud, error=%d", code);
        return code;
    }
    if (json_get(answer->get(), "id") == nullptr) {
        LOG_ERROR("fail to get the message id from the response of helloCloud");
        return CLOUD_SVR_E_MESSAGE_ID;
    }
    if (json_get_int(answer->get(), "id") != id) {
        LOG_ERROR("the message id from the response of helloCloud does not match");
        return CLOUD_SVR_E_MESSAGE_ID;
    }
    cJSON_DeleteItemFromObject(answer->get(), "id");
    return 0;
}

}  // namespace

int32_t handshake_hello_cloud(inner_api_t* api) {
    LOG_DEBUG("begin to handshake helloCloud...");
    text_ptr text = get_request_of_hello_cloud(api);
    const json_ptr request(text == nullptr ? nullptr : cJSON_Parse(text.get()));
    text.reset();
    if (request == nullptr) {
        LOG_ERROR("fail to get the request of helloCloud");
        return CLOUD_SVR_E_GENERAL;
    }
    const int32_t id = send_hello_cloud(api, request.get());
    if (id < 0) {
        return id;
    }
    json_ptr answer;
    const int32_t code = answer_get(api, id, &answer);
    if (code != 0) {
        return code;
    }
    notify_response_of_hello_cloud(api, answer.get());
    return check_response_of_hello_cloud(api, answer.get());
}
