#include "cloud/recv_from_ssl.h"

#include <string.h>

#include "cloud/handshake.h"
#include "cloud/session.h"
#include "cloud_svr_codes.h"
#include "ipc/cloud_svr_message.h"
#include "util/log.h"
#include "util/memory.h"

namespace {

constexpr int32_t kReceiveWaitMs = 50;

void on_stop_connect(inner_api_t* api, const cJSON* params) {
    const cJSON* const attribute = json_get(params, "attribute");
    if (attribute == nullptr) {
        LOG_ERROR("fail to get the attribute from the parameters");
        return;
    }
    int32_t delay_ms = json_scale(json_get_int(attribute, "reconnectTime"), 1000);
    LOG_WARN("received time to reconnect is %d ms", delay_ms);
    if (delay_ms == 0) {
        delay_ms = random_delay_ms();
    }
    LOG_WARN("next time to reconnect is %d ms", delay_ms);
    session_start_reconnect(api, 1, delay_ms);
}

void on_heartbeat_interval(inner_api_t* api, const cJSON* params) {
    const cJSON* const attribute = json_get(params, "attribute");
    if (attribute == nullptr) {
        LOG_ERROR("fail to get the attribute from the parameters");
        return;
    }
    if (json_get(attribute, "interval") == nullptr) {
        LOG_ERROR("fail to get the interval from the attribute");
        return;
    }
    const int32_t interval = json_get_int(attribute, "interval");
    if (interval == 0) {
        LOG_WARN("the interval is 0");
        return;
    }
    const mutex_lock_t held(api->lock);
    api->heartbeat_interval_ms = json_scale(interval, 1000);
}

void deal_with_cloud_notify_event(inner_api_t* api, const cJSON* request) {
    const char* const method = json_get_string(request, "method");
    if (method == nullptr) {
        LOG_ERROR("fail to get the method from the request");
        return;
    }
    if (strcmp(method, "notifyEvent") != 0) {
        return;
    }
    const cJSON* const params = json_get(request, "params");
    if (params == nullptr) {
        LOG_ERROR("fail to get the parameters from the request");
        return;
    }
    const char* const event = json_get_string(params, "event");
    if (event == nullptr) {
        LOG_ERROR("fail to get the event from the parameters");
    } else if (strcmp(event, "illegalDevice") == 0) {
        LOG_WARN("illegalDevice");
        (void)session_disconnect(api);
    } else if (strcmp(event, "stopConnect") == 0) {
        LOG_WARN("stopConnect");
        on_stop_connect(api, params);
    } else if (strcmp(event, "heartBeatInterval") == 0) {
        LOG_DEBUG("heartBeatInterval");
        on_heartbeat_interval(api, params);
    }
}

// Hands the message to a task, which then owns it. 0; the code of adding the task; 1 when the
// argument can't be had: the message, still in `json`, is to be handled here and now.
int32_t task_start(inner_api_t* api, int32_t id, json_ptr* json, task_pool_work_fn work) {
    task_arg_t* const arg = task_arg_get(api, id, json->get());
    if (arg == nullptr) {
        return 1;
    }
    (void)json->release();
    const int32_t code = task_pool_add(api->task_pool, work, task_arg_free, arg);
    if (code != 0) {
        task_arg_free(arg);
    }
    return code;
}

int32_t deal_with_cloud_request(inner_api_t* api, int32_t id, json_ptr json) {
    const int32_t code = task_start(api, id, &json, task_work_request);
    if (code > 0) {
        return task_for_cloud_request(api, id, json.get());
    }
    if (code < 0) {
        LOG_ERROR("fail to add the task, error=%d", code);
    }
    return code;
}

int32_t deal_with_cloud_response(inner_api_t* api, int32_t id, json_ptr json) {
    const int32_t code = task_start(api, id, &json, task_work_response);
    if (code > 0) {
        return task_for_cloud_response(api, id, json.get());
    }
    if (code < 0) {
        LOG_ERROR("fail to add the task, error=%d", code);
    }
    return code;
}

int32_t message_deal(inner_api_t* api, json_ptr json) {
    if (json_get(json.get(), "id") == nullptr) {
        LOG_ERROR("fail to get the message id");
        return CLOUD_SVR_E_MESSAGE_ID;
    }
    const int32_t id = json_get_int(json.get(), "id");
    cJSON_DeleteItemFromObject(json.get(), "id");
    const bool is_request = json_get(json.get(), "method") != nullptr;
    const int32_t code = is_request ? deal_with_cloud_request(api, id, std::move(json))
                                    : deal_with_cloud_response(api, id, std::move(json));
    if (code != 0) {
        LOG_ERROR("fail to deal with the json received, code=%d", code);
    }
    return code;
}

int32_t heartbeat_answered(inner_api_t* api, const cJSON* response) {
    if (json_get(response, "error_code") == nullptr) {
        LOG_ERROR("fail to get the error code from the response");
        return CLOUD_SVR_E_FORMAT;
    }
    inner_heartbeat_result_set(api, json_get_int(response, "error_code"));
    return 0;
}

}  // namespace

task_arg_t* task_arg_get(inner_api_t* api, int32_t id, cJSON* json) {
    record_ptr<task_arg_t> arg = record_new<task_arg_t>();
    if (arg == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(sizeof(task_arg_t)));
        return nullptr;
    }
    *arg = task_arg_t{api, json, id};
    return arg.release();
}

void task_arg_free(void* arg) {
    const record_ptr<task_arg_t> owned(static_cast<task_arg_t*>(arg));
    if (owned != nullptr) {
        cJSON_Delete(owned->json);
    }
}

int32_t recv_from_ssl(inner_api_t* api, uint32_t connection) {
    if (api == nullptr) {
        LOG_ERROR("the inner_api_t is NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    json_ptr json;
    const int32_t code = ssl_socket_rcv_on(api->ssl_socket, connection, kReceiveWaitMs, &json);
    if (code == CLOUD_SVR_E_NOTHING) {
        return code;
    }
    if (code != 0 && inner_is_lost(api)) {
        return code;  // the loss has been logged with its reason
    }
    if (code != 0) {
        LOG_ERROR("fail to ssl_socket_rcv, code=%d", code);
        return code;
    }
    return message_deal(api, std::move(json));
}

void task_work_request(void* arg) {
    LOG_DEBUG("begin the task of responding the request of the cloud...");
    const auto* const task = static_cast<const task_arg_t*>(arg);
    const int32_t code = task_for_cloud_request(task->inner, task->id, task->json);
    if (code != 0) {
        LOG_ERROR("fail to response the request of the cloud, error=%d", code);
    }
    LOG_DEBUG("end the task of responding the request of the cloud...");
}

void task_work_response(void* arg) {
    LOG_DEBUG("begin the task of notifying the response...");
    const auto* const task = static_cast<const task_arg_t*>(arg);
    const int32_t code = task_for_cloud_response(task->inner, task->id, task->json);
    if (code != 0) {
        LOG_ERROR("fail to response the request of the cloud, error=%d", code);
    }
    LOG_DEBUG("end the task of notifying the response...");
}

int32_t task_for_cloud_request(inner_api_t* api, int32_t id, const cJSON* request) {
    json_ptr response = get_response_of_cloud_request(api, id, request);
    if (response == nullptr) {
        LOG_ERROR("fail to get the response of the request");
        return CLOUD_SVR_E_RESOURCE;
    }
    const int32_t code = inner_send_with_id(api, response.get(), id);
    response.reset();
    deal_with_cloud_notify_event(api, request);
    if (code != 0) {
        LOG_ERROR("fail to send the response to the cloud, code=%d", code);
    }
    return code;
}

int32_t task_for_cloud_response(inner_api_t* api, int32_t id, const cJSON* response) {
    msg_data_t data;
    if (!msg_id_take(api->msg_id_pool, id, &data)) {
        LOG_ERROR("fail to get the data by the message id");
        return CLOUD_SVR_E_NOT_FOUND;
    }
    if (data.client_fd == 0) {
        return heartbeat_answered(api, response);
    }
    const text_ptr text = json_print(response);
    if (text == nullptr) {
        LOG_ERROR("fail to get the json string of the response");
        return CLOUD_SVR_E_RESOURCE;
    }
    cloud_svr_notify_message(data.client_fd, id, text.get());
    return 0;
}
