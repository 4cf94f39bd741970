// Proves the device to the cloud right after the TLS connection is up, sends heartbeats, and gets
// the device's answer to a request of the cloud from the plug-in or the registered client.
#pragma once

#include <stdint.h>

#include "cloud/inner_api_record.h"
#include "util/json.h"

// One pass over the new connection, whose frames nobody else reads yet. A delay that the cloud
// orders ("stopConnect") is left in ordered_delay_ms for the session.
//   0 accepted; -4000 rejected; -4001 ordered to stop; another negative code, or the cloud's own.
int32_t handshake(inner_api_t* api) REQUIRES(api->lock);

// Sends a heartBeat: its message id, which stays taken until its answer or its time-out; or the
// code of taking an id or of sending, -20107, -10000.
int32_t heartbeat_async(inner_api_t* api);

// The device's answer to `request`, which holds no "id"; empty, logged, when there is none. Waits
// for the registered client as long as request_timeout_ms.
json_ptr get_response_of_cloud_request(inner_api_t* api, int32_t id, const cJSON* request);

// An answer's "error_code", -20104 when it has none.
int32_t check_response(const cJSON* response);

// 0 when it is the request that the default handshake expects; -20103, -20104, -4000.
int32_t check_request_of_get_device_info(const cJSON* request);
int32_t check_request_of_is_legal_device(const cJSON* request);

// The handshake's first kind, in handshake_hello_cloud.cpp: the device's software makes the
// request and sees the answer before it is judged.
int32_t handshake_hello_cloud(inner_api_t* api) REQUIRES(api->lock);

// For a cloud that names no delay: 1 to 256 whole seconds at random, in milliseconds.
int32_t random_delay_ms();
