// What the local server asks of the cloud side: created and destroyed once, called from any task
// thread, several at once. `client` is a local_client handle.
#pragma once

#include <stdint.h>

#include "cloud/inner_api_record.h"
#include "config.h"

// The record, with the plug-in loaded and, if that makes a connection possible, the first one
// asked for. `config` is only read here. NULL, logged, on failure.
inner_api_t* inner_api_init(const config_t* config);

// Makes the API unavailable: every wait in it ends, no new one begins. The callbacks that still
// run then end by themselves; it is destroyed once they have. NULL is ignored.
void inner_api_stop(inner_api_t* api);

// inner_api_stop, waits for the cloud side's tasks and frees all. Nobody may use it any more.
void inner_api_destroy(inner_api_t* api);

// Drops the connection and reconnects: 0, or -20107.
int32_t inner_api_reconnect(inner_api_t* api);

// Sends a client's request to the cloud; its answer, or its time-out after `timeout_ms` (negative:
// the configured one), goes to the client. Non-zero `flag`: connects first if there is no
// connection.
//   the message id; 0 when it had to reconnect: the request was not sent; -20107; -1000; -10100;
//   -20103; the codes of the message id pool, the TLS socket and the session.
int32_t inner_send_request(inner_api_t* api, int32_t client, const char* request,
                           int32_t timeout_ms, int32_t flag);

// Makes the client the device's agent and waits for the connection, at most request_timeout_ms.
//   0; -1000 when there is none by then (the client stays registered); -3001; -20107; -1101 for a
//   client that has left.
int32_t inner_register_callback(inner_api_t* api, int32_t client, int32_t hello_cloud);

// 0, whether or not the client was registered; -20107.
int32_t inner_unregister_callback(inner_api_t* api, int32_t client);

// The registered client's answer to the cloud's request of that id.
void inner_set_response(inner_api_t* api, int32_t id, const char* response);

// The helloCloud request that the registered client was asked for.
void inner_set_request_of_hello_cloud(inner_api_t* api, const char* request);
