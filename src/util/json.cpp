#include "util/json.h"

#include <stdio.h>

namespace {

// Room for a common message at once: cJSON would begin with 256 bytes, double them as it goes, and
// shrink the text at the end.
constexpr int kFirstSize = 1024;

}  // namespace

text_ptr json_print(const cJSON* json) {
    return text_ptr(json == nullptr ? nullptr : cJSON_PrintBuffered(json, kFirstSize, 0));
}

const cJSON* json_get(const cJSON* json, const char* name) {
    return cJSON_GetObjectItem(json, name);
}

const char* json_get_string(const cJSON* json, const char* name) {
    return cJSON_GetStringValue(json_get(json, name));
}

int32_t json_get_int(const cJSON* json, const char* name) {
    const cJSON* const member = json_get(json, name);
    return cJSON_IsNumber(member) ? member->valueint : 0;
}

int32_t json_scale(int32_t value, int32_t factor) {
    const int64_t product = static_cast<int64_t>(value) * factor;
    if (product < 0) {
        return 0;
    }
    return product > INT32_MAX ? INT32_MAX : static_cast<int32_t>(product);
}

bool json_add(cJSON* json, const char* name, json_ptr member) {
    if (member == nullptr || cJSON_AddItemToObject(json, name, member.get()) == 0) {
        return false;
    }
    (void)member.release();
    return true;
}

bool json_add_int(cJSON* json, const char* name, int32_t value) {
    // As text: cJSON would print it through floating point, the dearest step of a whole message.
    char text[12];
    snprintf(text, sizeof(text), "%d", value);
    return json_add(json, name, json_ptr(cJSON_CreateRaw(text)));
}

bool json_add_string(cJSON* json, const char* name, const char* value) {
    return json_add(json, name, json_ptr(cJSON_CreateString(value)));
}

bool json_set_id(cJSON* json, int32_t id) {
    cJSON_DeleteItemFromObject(json, "id");
    return json_add_int(json, "id", id);
}

int json_error_text(int32_t code, const char* msg, text_ptr* text) {
    const json_ptr json(cJSON_CreateObject());
    if (json == nullptr || !json_add_int(json.get(), "error_code", code) ||
        !json_add_string(json.get(), "msg", msg)) {
        return -1;
    }
    *text = json_print(json.get());
    return *text == nullptr ? -2 : 0;
}
