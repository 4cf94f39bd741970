// Receives what the cloud sends once the handshake is through and routes it: requests to the
// device's software, answers to who waits for them, events to the session. Each message is handled
// on a task of its own.
#pragma once

#include <stdint.h>

#include "cloud/inner_api_record.h"
#include "util/json.h"

// One message, with its "id" removed, on its way to a task that owns it.
struct task_arg_t {
    inner_api_t* inner;
    cJSON* json;
    int32_t id;
};

// Takes `json` over; NULL, logged and with `json` still the caller's, when memory is out.
task_arg_t* task_arg_get(inner_api_t* api, int32_t id, cJSON* json);

// Completion of a task: deletes the message and the argument. NULL is ignored.
void task_arg_free(void* arg);

// Receives at most one message of the connection of that number, waiting up to 50 ms, and hands it
// on. 0; -3000 when nothing came; otherwise the code of what failed, logged, a loss of the
// connection only once.
int32_t recv_from_ssl(inner_api_t* api, uint32_t connection);

// Task bodies, given a task_arg_t.
void task_work_request(void* arg);
void task_work_response(void* arg);

// Gets the device's answer to the cloud's request, sends it, then carries out the event that the
// request may tell of. 0; -10000 without an answer; the code of sending.
int32_t task_for_cloud_request(inner_api_t* api, int32_t id, const cJSON* request);

// Hands an answer to the client that waits for it, or to the heartbeat. 0; -2000 when nobody
// waits; -10000; -10100.
int32_t task_for_cloud_response(inner_api_t* api, int32_t id, const cJSON* response);
