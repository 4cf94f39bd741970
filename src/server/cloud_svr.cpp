#include "server/cloud_svr.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <unistd.h>

#include "cloud_svr_codes.h"
#include "ipc/ipc_socket.h"
#include "ipc/local_client.h"
#include "server/cloud_svr_record.h"
#include "util/log.h"
#include "util/memory.h"

namespace {

constexpr useconds_t kStopPollUs = 100;

// A descriptor that select can't hold is refused, so more slots could never fill.
bool clients_init(cloud_svr_t* server, int32_t max_client_number) {
    server->max_client_number = max_client_number < FD_SETSIZE ? max_client_number : FD_SETSIZE;
    const auto count = static_cast<size_t>(server->max_client_number);
    server->clients = static_cast<svr_client_t**>(calloc(count, sizeof(svr_client_t*)));
    if (server->clients == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(count * sizeof(svr_client_t*)));
    }
    return server->clients != nullptr;
}

bool parts_init(cloud_svr_t* server, const char* path, const config_t* config) {
    if (!clients_init(server, config->max_client_number)) {
        return false;
    }
    server->task_pool = task_pool_init();
    if (server->task_pool == nullptr) {
        LOG_ERROR("fail to create the task pool");
        return false;
    }
    // Without it a slow client's frames go on with the next pass instead of at once.
    server->waker = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    local_client_set_waker(server->waker);
    server->inner_api = inner_api_init(config);
    if (server->inner_api == nullptr) {
        LOG_ERROR("fail to initialize the inner_api");
        return false;
    }
    server->socket = ipc_socket_init_as_server(path);
    if (server->socket < 0) {
        LOG_ERROR("fail to create the unix socket");
        return false;
    }
    server->path = string_dup(path);
    return true;
}

void clients_destroy(cloud_svr_t* server) {
    for (int32_t i = 0; server->clients != nullptr && i < server->max_client_number; ++i) {
        svr_client_destroy(server->clients[i]);
    }
    free(server->clients);
}

void sigterm_mask(int how) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(how, &set, nullptr);
}

}  // namespace

cloud_svr_t* cloud_svr_init(const char* path, const config_t* config) {
    if (path == nullptr || config == nullptr) {
        LOG_ERROR("the file path or config_t is NULL");
        return nullptr;
    }
    LOG_DEBUG("begin to initialize the server...");
    unlink(path);
    cloud_svr_t* const server = record_new<cloud_svr_t>().release();
    if (server == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(sizeof(cloud_svr_t)));
        return nullptr;
    }
    if (!parts_init(server, path, config)) {
        cloud_svr_destroy(server);
        return nullptr;
    }
    LOG_DEBUG("end to initialize the server...");
    return server;
}

int32_t cloud_svr_start(cloud_svr_t* server, cloud_svr_on_receive_fn on_receive,
                        cloud_svr_on_client_close_fn on_client_close) {
    if (server == nullptr || on_receive == nullptr || on_client_close == nullptr) {
        LOG_ERROR(
            "the cloud_svr_t, cloud_svr_on_receive_fn or cloud_svr_on_client_close_fn is NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    server->on_receive = on_receive;
    server->on_client_close = on_client_close;
    const int result = pthread_create(&server->worker, nullptr, cloud_svr_worker, server);
    if (result != 0) {
        LOG_ERROR("fail to create a thread, error=%d", result);
        return CLOUD_SVR_E_RESOURCE;
    }
    LOG_DEBUG("server start...");
    return 0;
}

void cloud_svr_stop(cloud_svr_t* server) {
    if (server == nullptr) {
        return;
    }
    LOG_DEBUG("begin to stop the server...");
    server->flags &= ~CLOUD_SVR_RUNNING;
    (void)eventfd_write(server->waker, 1);
    while ((server->flags & CLOUD_SVR_WORKING) != 0) {
        usleep(kStopPollUs);
    }
    LOG_DEBUG("end to stop the server...");
}

void cloud_svr_wait(cloud_svr_t* server) {
    if (server == nullptr) {
        return;
    }
    LOG_DEBUG("wait for the work");
    // Only here, where this thread holds no lock that the handler could want. A signal that came
    // earlier is delivered now.
    sigterm_mask(SIG_UNBLOCK);
    pthread_join(server->worker, nullptr);
    sigterm_mask(SIG_BLOCK);
}

void cloud_svr_destroy(cloud_svr_t* server) {
    if (server == nullptr) {
        LOG_WARN("the cloud_svr_t is NULL");
        return;
    }
    LOG_DEBUG("begin to destroy the server...");
    // Callbacks that still run use the inner API: their waits in it end, then they do, and only
    // then is it freed.
    inner_api_stop(server->inner_api);
    task_pool_wait(server->task_pool);
    inner_api_destroy(server->inner_api);
    task_pool_destroy(server->task_pool);
    clients_destroy(server);
    local_client_set_waker(-1);
    const descriptor_t waker(server->waker);
    const descriptor_t listener(server->socket);
    if (server->path != nullptr) {
        unlink(server->path);
        free(server->path);
    }
    record_ptr<cloud_svr_t>(server).reset();
    LOG_DEBUG("end to destroy the server...");
}
