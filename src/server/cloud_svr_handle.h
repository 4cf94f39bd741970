// What the daemon does with a client's message: carries requests out through the inner API and
// answers them, routes the registered client's answers to the cloud side.
#pragma once

#include "cloud/inner_api.h"

// The local server's callbacks (cloud_svr_on_receive_fn, cloud_svr_on_client_close_fn); any number
// may run at once.
void cloud_svr_handle_message(inner_api_t* api, int32_t client, const char* message);
void cloud_svr_handle_close(inner_api_t* api, int32_t client);
