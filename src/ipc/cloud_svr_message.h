// What the daemon writes to a client: one JSON object per frame, its members in a fixed order
// (docs/protocol.md). `client` is a local_client handle; every text stays the caller's.
//
// Results: 0; -20107 for no client or no text; -10000 when an object or text can't be made;
// -1101 when the client can't be sent to. None waits for the client.
#pragma once

#include <stdint.h>

#include <cjson/cJSON.h>

int32_t send_to_client(int32_t client, const cJSON* json);

// A client's answer from the cloud, or the one that tells of its time-out.
void cloud_svr_notify_message(int32_t client, int32_t id, const char* response);

// A request of the cloud, for the registered client.
int32_t cloud_svr_request_client(int32_t client, int32_t id, const char* request);

int32_t cloud_svr_request_client_for_hello_cloud(int32_t client);
int32_t cloud_svr_notify_client_for_hello_cloud(int32_t client, const char* response);
