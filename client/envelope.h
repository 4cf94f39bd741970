// The messages that a client writes, as texts: empty when memory is out.
#pragma once

#include <stdint.h>

#include "util/json.h"

// {"inner_method": method, "inner_id": id, "inner_params": params}; no params: left out.
text_ptr envelope_request(const char* method, int32_t inner_id, json_ptr params);

// The params of a request to the cloud, and of a registration; empty when memory is out.
json_ptr envelope_device_request_params(const char* request, int32_t timeout_ms, int32_t flag);
json_ptr envelope_register_params(bool hello_cloud);

// The answer to the cloud's request `inner_id`: a code, and with code 0 the text.
text_ptr envelope_cloud_answer(int32_t inner_id, int32_t code, const char* answer);

// The answer to the daemon's question for the helloCloud request.
text_ptr envelope_hello_request(const char* request);
