#include "envelope.h"

namespace {

// Adds "inner_result": {"response": text}.
bool response_add(cJSON* message, const char* text) {
    json_ptr result(cJSON_CreateObject());
    return json_add_string(result.get(), "response", text) &&
           json_add(message, "inner_result", std::move(result));
}

}  // namespace

text_ptr envelope_request(const char* method, int32_t inner_id, json_ptr params) {
    const json_ptr message(cJSON_CreateObject());
    if (!json_add_string(message.get(), "inner_method", method) ||
        !json_add_int(message.get(), "inner_id", inner_id)) {
        return nullptr;
    }
    if (params != nullptr && !json_add(message.get(), "inner_params", std::move(params))) {
        return nullptr;
    }
    return json_print(message.get());
}

json_ptr envelope_device_request_params(const char* request, int32_t timeout_ms, int32_t flag) {
    json_ptr params(cJSON_CreateObject());
    if (!json_add_string(params.get(), "request", request) ||
        !json_add_int(params.get(), "timeout_ms", timeout_ms) ||
        !json_add_int(params.get(), "flag", flag)) {
        return nullptr;
    }
    return params;
}

json_ptr envelope_register_params(bool hello_cloud) {
    json_ptr params(cJSON_CreateObject());
    if (!json_add_int(params.get(), "hello_cloud", hello_cloud ? 1 : 0)) {
        return nullptr;
    }
    return params;
}

text_ptr envelope_cloud_answer(int32_t inner_id, int32_t code, const char* answer) {
    const json_ptr message(cJSON_CreateObject());
    if (!json_add_int(message.get(), "inner_id", inner_id) ||
        !json_add_int(message.get(), "inner_error_code", code)) {
        return nullptr;
    }
    if (code == 0 && !response_add(message.get(), answer)) {
        return nullptr;
    }
    return json_print(message.get());
}

text_ptr envelope_hello_request(const char* request) {
    const json_ptr message(cJSON_CreateObject());
    return response_add(message.get(), request) ? json_print(message.get()) : nullptr;
}
