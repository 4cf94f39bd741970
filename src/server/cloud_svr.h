// The local server: owns the listening socket, the connected clients and one worker thread that
// reads from all of them. Each message and each disconnection is handed to a callback on a task of
// its own. It also owns the cloud side, which the callbacks get as their context.
#pragma once

#include <stdint.h>

#include "cloud/inner_api.h"
#include "config.h"

// Called with one frame's text, which the callback borrows.
typedef void (*cloud_svr_on_receive_fn)(inner_api_t* api, int32_t client, const char* text);

// Called once a client has disconnected; the handle is only an identifier by then.
typedef void (*cloud_svr_on_client_close_fn)(inner_api_t* api, int32_t client);

struct cloud_svr_t;

// A server listening on `path`, where a file that is in the way is removed; not yet working. Both
// arguments are only read here. NULL, logged, on failure.
cloud_svr_t* cloud_svr_init(const char* path, const config_t* config);

// Starts the worker: 0; -20107; -10000 when the thread can't be created.
int32_t cloud_svr_start(cloud_svr_t* server, cloud_svr_on_receive_fn on_receive,
                        cloud_svr_on_client_close_fn on_client_close);

// Ends the worker and waits until it has left its loop. Meant for the SIGTERM handler. NULL is
// ignored.
void cloud_svr_stop(cloud_svr_t* server);

// Waits until the worker has ended. SIGTERM, which every thread blocks, is let through to the
// calling thread meanwhile. NULL is ignored.
void cloud_svr_wait(cloud_svr_t* server);

// Tears everything down: the cloud side becomes unavailable, running callbacks end, all is freed
// and the socket file removed. The worker must have ended.
void cloud_svr_destroy(cloud_svr_t* server);
