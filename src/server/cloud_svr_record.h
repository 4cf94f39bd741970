// The local server's record, for its own sources.
#pragma once

#include <pthread.h>

#include <atomic>

#include "ipc/ipc_frame.h"
#include "server/cloud_svr.h"
#include "util/clock.h"
#include "util/task_pool.h"

constexpr uint32_t CLOUD_SVR_RUNNING = 0x1;  // cleared by whoever stops
constexpr uint32_t CLOUD_SVR_WORKING = 0x2;  // set and cleared by the worker

struct svr_client_t {
    int32_t client;  // local_client handle
    ipc_reader_t reader;
};

struct cloud_svr_t {
    std::atomic<uint32_t> flags{CLOUD_SVR_RUNNING};

    // Fixed after init and start.
    int socket = -1;  // listens
    int waker = -1;   // eventfd that ends the worker's select
    int32_t max_client_number = 0;
    char* path = nullptr;
    cloud_svr_on_receive_fn on_receive = nullptr;
    cloud_svr_on_client_close_fn on_client_close = nullptr;
    task_pool_t* task_pool = nullptr;
    inner_api_t* inner_api = nullptr;
    pthread_t worker = {};

    // The worker's own while it runs.
    svr_client_t** clients = nullptr;  // max_client_number slots, NULL: free
    deadline_t accept_rest = {0, 0};   // the listening socket is left alone until then
    deadline_t catch_up_rest = {0, 0};
};

// The worker's thread body.
void* cloud_svr_worker(void* server);

// Forgets a client: closes its socket and frees its record.
void svr_client_destroy(svr_client_t* client);
