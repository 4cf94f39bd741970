/* A cloud kit for a device with one switch. The cloud may ask who the device is (getDeviceInfo),
 * read the switch (getSwitch) and turn it (setSwitch); events are only acknowledged. */
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <cjson/cJSON.h>

#include "cloud_kit.h"

enum { UNKNOWN_METHOD = -1, BAD_PARAMS = -2 };

/* The cloud's requests are answered on several threads at once. */
static atomic_bool switch_is_on;

/* {"error_code":code}; NULL when memory is out. */
static cJSON* answer_new(int code) {
    cJSON* const answer = cJSON_CreateObject();
    if (cJSON_AddNumberToObject(answer, "error_code", code) == NULL) {
        cJSON_Delete(answer);
        return NULL;
    }
    return answer;
}

static cJSON* describe_device(void) {
    cJSON* const answer = answer_new(0);
    cJSON* const result = cJSON_AddObjectToObject(answer, "result");
    cJSON_AddStringToObject(result, "model", "example-switch");
    cJSON_AddStringToObject(result, "firmware", "1.0.0");
    return answer;
}

static cJSON* get_switch(void) {
    cJSON* const answer = answer_new(0);
    cJSON_AddBoolToObject(cJSON_AddObjectToObject(answer, "result"), "on", switch_is_on);
    return answer;
}

static cJSON* set_switch(const cJSON* request) {
    const cJSON* const params = cJSON_GetObjectItemCaseSensitive(request, "params");
    const cJSON* const wanted = cJSON_GetObjectItemCaseSensitive(params, "on");
    if (!cJSON_IsBool(wanted)) {
        return answer_new(BAD_PARAMS);
    }
    switch_is_on = cJSON_IsTrue(wanted) != 0;
    return answer_new(0);
}

static cJSON* answer_request(const cJSON* request) {
    const cJSON* const item = cJSON_GetObjectItemCaseSensitive(request, "method");
    const char* const method = cJSON_GetStringValue(item);
    if (method == NULL) {
        return answer_new(UNKNOWN_METHOD);
    }
    if (strcmp(method, "getDeviceInfo") == 0) {
        return describe_device();
    }
    if (strcmp(method, "notifyEvent") == 0) {
        return answer_new(0);
    }
    if (strcmp(method, "getSwitch") == 0) {
        return get_switch();
    }
    if (strcmp(method, "setSwitch") == 0) {
        return set_switch(request);
    }
    return answer_new(UNKNOWN_METHOD);
}

int vorn_respond_cloud(const char* request, char** response) {
    cJSON* const parsed = cJSON_Parse(request);
    cJSON* const answer = answer_request(parsed);
    /* The text comes from malloc, which is cJSON's default. */
    *response = cJSON_PrintUnformatted(answer);
    cJSON_Delete(answer);
    cJSON_Delete(parsed);
    return 0;
}

int vorn_build_request_of_hello_cloud(char** request) {
    static const char hello[] =
        "{\"method\":\"helloCloud\",\"params\":{\"model\":\"example-switch\"}}";
    char* const copy = malloc(sizeof(hello));
    if (copy != NULL) {
        memcpy(copy, hello, sizeof(hello));
    }
    *request = copy;
    return 0;
}

int vorn_recv_response_of_hello_cloud(const char* response) {
    fprintf(stderr, "kit: the cloud answers %s\n", response);
    return 0;
}
