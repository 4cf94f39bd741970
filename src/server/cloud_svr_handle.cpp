#include "server/cloud_svr_handle.h"

#include <string.h>

#include "cloud_svr_codes.h"
#include "ipc/cloud_svr_message.h"
#include "util/json.h"
#include "util/log.h"
#include "util/memory.h"

namespace {

// A request on its way: what it says and what is answered.
struct client_request_t {
    inner_api_t* api;
    int32_t client;
    const cJSON* message;
    json_ptr result;  // "inner_result", if any
};

int32_t send_request(client_request_t* request) {
    const cJSON* const params = json_get(request->message, "inner_params");
    if (params == nullptr) {
        LOG_ERROR("fail to get the parameters");
        return CLOUD_SVR_E_MEMBER;
    }
    if (json_get(params, "request") == nullptr) {
        LOG_ERROR("fail to get the request from the parameters");
        return CLOUD_SVR_E_MEMBER;
    }
    if (json_get(params, "timeout_ms") == nullptr) {
        LOG_ERROR("fail to get the time out from the parameters");
        return CLOUD_SVR_E_MEMBER;
    }
    if (json_get(params, "flag") == nullptr) {
        LOG_ERROR("fail to get the flag from the parameters");
        return CLOUD_SVR_E_MEMBER;
    }
    json_ptr result(cJSON_CreateObject());
    if (result == nullptr) {
        LOG_ERROR("fail to create a new json object");
        return CLOUD_SVR_E_RESOURCE;
    }
    const int32_t id =
        inner_send_request(request->api, request->client, json_get_string(params, "request"),
                           json_get_int(params, "timeout_ms"), json_get_int(params, "flag"));
    if (id < 0) {
        LOG_ERROR("fail to send the request, error=%d", id);
        return id;
    }
    (void)json_add_int(result.get(), "id", id);
    request->result = std::move(result);
    return 0;
}

int32_t register_callback(client_request_t* request) {
    const cJSON* const params = json_get(request->message, "inner_params");
    if (params == nullptr) {
        LOG_ERROR("fail to get the parameters");
        return CLOUD_SVR_E_MEMBER;
    }
    if (json_get(params, "hello_cloud") == nullptr) {
        LOG_ERROR("fail to get the flag from the parameters");
        return CLOUD_SVR_E_MEMBER;
    }
    return inner_register_callback(request->api, request->client,
                                   json_get_int(params, "hello_cloud"));
}

int32_t unregister_callback(client_request_t* request) {
    return inner_unregister_callback(request->api, request->client);
}

int32_t reconnect_cloud(client_request_t* request) {
    return inner_api_reconnect(request->api);
}

struct method_t {
    const char* name;
    int32_t (*run)(client_request_t* request);
};

constexpr method_t kMethods[] = {
    {"device_request", send_request},
    {"register_callback", register_callback},
    {"unregister_callback", unregister_callback},
    {"reconnect_cloud", reconnect_cloud},
};

int32_t dispatch_client_request(client_request_t* request, const char* method) {
    int32_t code = CLOUD_SVR_E_METHOD;
    for (const method_t& known : kMethods) {
        if (strcmp(method, known.name) == 0) {
            code = known.run(request);
            break;
        }
    }
    if (code != 0) {
        LOG_ERROR("fail to invoke %s, error=%d", method, code);
    }
    return code;
}

int32_t request_run(client_request_t* request) {
    const char* const method = json_get_string(request->message, "inner_method");
    if (method == nullptr) {
        LOG_ERROR("fail to get the method");
        return CLOUD_SVR_E_METHOD;
    }
    return dispatch_client_request(request, method);
}

void deal_client_request(inner_api_t* api, int32_t client, const cJSON* message) {
    if (json_get(message, "inner_id") == nullptr) {
        LOG_ERROR("fail to get the message id");
        return;
    }
    const json_ptr answer(cJSON_CreateObject());
    if (answer == nullptr ||
        !json_add_int(answer.get(), "inner_id", json_get_int(message, "inner_id"))) {
        LOG_ERROR("fail to create a new json object");
        return;
    }
    client_request_t request = {api, client, message, nullptr};
    const int32_t code = request_run(&request);
    (void)json_add_int(answer.get(), "inner_error_code", code);
    if (request.result != nullptr) {
        (void)json_add(answer.get(), "inner_result", std::move(request.result));
    }
    (void)send_to_client(client, answer.get());
}

void hello_cloud_request_set(inner_api_t* api, const cJSON* message) {
    const cJSON* const result = json_get(message, "inner_result");
    if (result == nullptr) {
        LOG_ERROR("fail to get the result from the response");
        return;
    }
    const char* const response = json_get_string(result, "response");
    if (response == nullptr) {
        LOG_ERROR("fail to get the response from the result");
        return;
    }
    inner_set_request_of_hello_cloud(api, response);
}

// The text that the client answers the cloud's request with, in `response`; or the code that the
// cloud is told instead.
int32_t response_take(const cJSON* message, const char** response) {
    if (json_get(message, "inner_error_code") == nullptr) {
        LOG_ERROR("fail to get the error code");
        return CLOUD_SVR_E_MEMBER;
    }
    const int32_t code = json_get_int(message, "inner_error_code");
    if (code != 0) {
        return code;
    }
    const cJSON* const result = json_get(message, "inner_result");
    if (result == nullptr) {
        LOG_ERROR("fail to get the result");
        return CLOUD_SVR_E_MEMBER;
    }
    *response = json_get_string(result, "response");
    if (*response == nullptr) {
        LOG_ERROR("fail to get the response from the result");
        return CLOUD_SVR_E_MEMBER;
    }
    return 0;
}

void error_response_set(inner_api_t* api, int32_t id, int32_t code) {
    text_ptr text;
    const int result = json_error_text(code, "", &text);
    if (result == -1) {
        LOG_ERROR("fail to create a new json object");
    } else if (result == -2) {
        LOG_ERROR("fail to get the response");
    } else {
        inner_set_response(api, id, text.get());
    }
}

void dispatch_client_response(inner_api_t* api, const cJSON* message) {
    const int32_t id = json_get_int(message, "inner_id");
    const char* response = nullptr;
    int32_t code = response_take(message, &response);
    if (code == 0) {
        const text_ptr copy(string_dup(response));
        if (copy != nullptr) {
            inner_set_response(api, id, copy.get());
            return;
        }
        LOG_ERROR("fail to copy string");
        code = CLOUD_SVR_E_RESOURCE;
    }
    error_response_set(api, id, code);
}

void deal_client_response(inner_api_t* api, const cJSON* message) {
    if (json_get(message, "inner_id") == nullptr) {
        hello_cloud_request_set(api, message);
    } else {
        dispatch_client_response(api, message);
    }
}

}  // namespace

void cloud_svr_handle_message(inner_api_t* api, int32_t client, const char* message) {
    if (client == 0 || message == nullptr) {
        LOG_ERROR("the client's file description or message is NULL");
        return;
    }
    const json_ptr json(cJSON_Parse(message));
    if (json == nullptr) {
        LOG_ERROR("fail to parse the message from the client, message=%s", message);
        return;
    }
    if (json_get(json.get(), "inner_method") != nullptr) {
        deal_client_request(api, client, json.get());
    } else {
        deal_client_response(api, json.get());
    }
}

void cloud_svr_handle_close(inner_api_t* api, int32_t client) {
    (void)inner_unregister_callback(api, client);
}
