// The worker thread: accepts, reads, and sends on what slow clients have not taken yet. It never
// waits for one client.
#include <errno.h>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "cloud/session.h"
#include "cloud_svr_codes.h"
#include "ipc/ipc_socket.h"
#include "ipc/local_client.h"
#include "server/cloud_svr_record.h"
#include "util/json.h"
#include "util/log.h"
#include "util/memory.h"

namespace {

// What needs the worker wakes it; each pass without that would only use up the battery.
constexpr int kPassMs = 1000;
constexpr int kPassWithoutWakerMs = 100;
constexpr int32_t kAcceptRestMs = 100;
constexpr int32_t kCatchUpRestMs = 1000;
constexpr int32_t kGreetingTaken = 0;
constexpr int32_t kGreetingRefused = 1;

// One callback's run.
struct task_data_t {
    cloud_svr_t* server;
    int32_t client;
    char* text;  // owned; NULL for a close
};

// What one pass waits for.
struct pass_t {
    fd_set readable;
    fd_set writable;
    int highest;
    int wait_ms;
};

void pass_add(pass_t* pass, int fd, fd_set* set) {
    FD_SET(fd, set);
    pass->highest = fd > pass->highest ? fd : pass->highest;
}

void pass_wait_at_most(pass_t* pass, int ms) {
    pass->wait_ms = ms < pass->wait_ms ? ms : pass->wait_ms;
}

void pass_add_client(pass_t* pass, const svr_client_t* client) {
    const int fd = local_client_fd(client->client);
    pass_add(pass, fd, &pass->readable);
    if (local_client_is_waiting(client->client)) {
        pass_add(pass, fd, &pass->writable);
    }
    const int left = ipc_reader_left(&client->reader);
    if (left >= 0) {
        pass_wait_at_most(pass, left);
    }
}

pass_t pass_prepare(const cloud_svr_t* server) {
    pass_t pass;
    FD_ZERO(&pass.readable);
    FD_ZERO(&pass.writable);
    pass.highest = -1;
    pass.wait_ms = kPassMs;
    const uint32_t accept_rest_ms = deadline_left(server->accept_rest);
    if (accept_rest_ms == 0) {
        pass_add(&pass, server->socket, &pass.readable);
    } else {
        pass_wait_at_most(&pass, static_cast<int>(accept_rest_ms));
    }
    if (server->waker >= 0 && server->waker < FD_SETSIZE) {
        pass_add(&pass, server->waker, &pass.readable);
    } else {
        pass_wait_at_most(&pass, kPassWithoutWakerMs);
    }
    for (int32_t i = 0; i < server->max_client_number; ++i) {
        if (server->clients[i] != nullptr) {
            pass_add_client(&pass, server->clients[i]);
        }
    }
    return pass;
}

task_data_t* task_data_get(cloud_svr_t* server, int32_t client, char* text) {
    record_ptr<task_data_t> data = record_new<task_data_t>();
    if (data == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(sizeof(task_data_t)));
        return nullptr;
    }
    *data = task_data_t{server, client, text};
    return data.release();
}

void task_data_free(void* arg) {
    const record_ptr<task_data_t> data(static_cast<task_data_t*>(arg));
    free(data->text);
}

void task_receive(void* arg) {
    const auto* const data = static_cast<const task_data_t*>(arg);
    data->server->on_receive(data->server->inner_api, data->client, data->text);
}

void task_close(void* arg) {
    const auto* const data = static_cast<const task_data_t*>(arg);
    data->server->on_client_close(data->server->inner_api, data->client);
}

// Runs the callback on a task, or here and now when there can't be one.
void callback_run(cloud_svr_t* server, int32_t client, text_ptr text, task_pool_work_fn work) {
    task_data_t here = {server, client, text.get()};
    task_data_t* const data = task_data_get(server, client, text.get());
    if (data == nullptr) {
        work(&here);
        return;
    }
    (void)text.release();
    if (task_pool_add(server->task_pool, work, task_data_free, data) != 0) {
        work(data);
        task_data_free(data);
    }
}

// {"inner_method":"server_notify","inner_params":{"type":type}}
text_ptr greeting_get(int32_t type) {
    const json_ptr greeting(cJSON_CreateObject());
    json_ptr params(cJSON_CreateObject());
    if (greeting == nullptr || params == nullptr ||
        !json_add_string(greeting.get(), "inner_method", "server_notify") ||
        !json_add_int(params.get(), "type", type) ||
        !json_add(greeting.get(), "inner_params", std::move(params))) {
        LOG_ERROR("fail to create a new json object");
        return nullptr;
    }
    return json_print(greeting.get());
}

// Tells a fresh connection, whose buffer is empty, what becomes of it; whether it hears it is its
// own business.
void deal_on_client_accept(int fd, int32_t type) {
    const text_ptr greeting = greeting_get(type);
    if (greeting != nullptr) {
        ipc_outbox_t none;
        (void)ipc_socket_post(fd, &none, greeting.get());
    }
}

svr_client_t** slot_find(cloud_svr_t* server) {
    for (int32_t i = 0; i < server->max_client_number; ++i) {
        if (server->clients[i] == nullptr) {
            return &server->clients[i];
        }
    }
    return nullptr;
}

// The client's record, with the descriptor taken over; NULL when there is no place for it.
svr_client_t* client_admit(cloud_svr_t* server, descriptor_t* accepted) {
    svr_client_t** const slot = accepted->fd < FD_SETSIZE ? slot_find(server) : nullptr;
    if (slot == nullptr) {
        return nullptr;
    }
    record_ptr<svr_client_t> record = record_new<svr_client_t>();
    if (record == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(sizeof(svr_client_t)));
        return nullptr;
    }
    record->client = local_client_open(accepted->fd);
    if (record->client < 0) {
        return nullptr;
    }
    (void)accepted->release();
    *slot = record.release();
    return *slot;
}

void cloud_svr_work_on_accept(cloud_svr_t* server) {
    descriptor_t accepted(accept4(server->socket, nullptr, nullptr, SOCK_CLOEXEC));
    if (accepted.fd < 0) {
        LOG_ERROR("fail to accept, error=%d", errno);
        // Out of descriptors, most likely: trying again at once would only fill the log.
        server->accept_rest = deadline_in(kAcceptRestMs);
        return;
    }
    const int fd = accepted.fd;
    if (client_admit(server, &accepted) != nullptr) {
        deal_on_client_accept(fd, kGreetingTaken);
        return;
    }
    deal_on_client_accept(fd, kGreetingRefused);
    LOG_WARN("client list is FULL");
}

void cloud_svr_work_on_message(cloud_svr_t* server, svr_client_t** slot) {
    const int32_t client = (*slot)->client;
    text_ptr text;
    const int32_t code = ipc_socket_read(&(*slot)->reader, local_client_fd(client), &text);
    if (code == 0) {
        callback_run(server, client, std::move(text), task_receive);
        return;
    }
    if (code != CLOUD_SVR_E_LOCAL_CLOSED) {
        return;
    }
    LOG_DEBUG("client is closed, socket: %d", local_client_fd(client));
    svr_client_destroy(*slot);
    *slot = nullptr;
    callback_run(server, client, nullptr, task_close);
}

void work_on_client(cloud_svr_t* server, svr_client_t** slot, const pass_t& pass) {
    const int32_t client = (*slot)->client;
    const int fd = local_client_fd(client);
    if (FD_ISSET(fd, &pass.writable)) {
        local_client_flush(client);
    }
    // A frame whose rest doesn't come is given up without any byte to wake us.
    if (FD_ISSET(fd, &pass.readable) || ipc_reader_left(&(*slot)->reader) == 0) {
        cloud_svr_work_on_message(server, slot);
    }
}

void waker_clear(const cloud_svr_t* server) {
    eventfd_t count = 0;
    (void)eventfd_read(server->waker, &count);
}

void pass_clear(pass_t* pass) {
    FD_ZERO(&pass->readable);
    FD_ZERO(&pass->writable);
}

// The worker is the one thread that is there whatever runs out.
void catch_up(cloud_svr_t* server) {
    if (deadline_left(server->catch_up_rest) == 0) {
        session_catch_up(server->inner_api);
        server->catch_up_rest = deadline_in(kCatchUpRestMs);
    }
}

// One pass. The clients that were there before an accept are those that select looked at.
void cloud_svr_work(cloud_svr_t* server) {
    pass_t pass = pass_prepare(server);
    struct timeval timeout = {pass.wait_ms / 1000, pass.wait_ms % 1000 * 1000};
    const int result = select(pass.highest + 1, &pass.readable, &pass.writable, nullptr, &timeout);
    if (result < 0) {
        LOG_ERROR("fail to select, error=%d", result);
        return;
    }
    if (result == 0) {
        pass_clear(&pass);
    }
    if (server->waker >= 0 && FD_ISSET(server->waker, &pass.readable)) {
        waker_clear(server);
    }
    const bool accept_is_due = FD_ISSET(server->socket, &pass.readable) != 0;
    for (int32_t i = 0; i < server->max_client_number; ++i) {
        if (server->clients[i] != nullptr) {
            work_on_client(server, &server->clients[i], pass);
        }
    }
    if (accept_is_due) {
        cloud_svr_work_on_accept(server);
    }
}

}  // namespace

void svr_client_destroy(svr_client_t* client) {
    const record_ptr<svr_client_t> owned(client);
    if (owned != nullptr) {
        local_client_close(owned->client);
    }
}

void* cloud_svr_worker(void* arg) {
    auto* const server = static_cast<cloud_svr_t*>(arg);
    LOG_DEBUG("begin to work...");
    server->flags |= CLOUD_SVR_WORKING;
    while ((server->flags & CLOUD_SVR_RUNNING) != 0) {
        cloud_svr_work(server);
        catch_up(server);
    }
    server->flags &= ~CLOUD_SVR_WORKING;
    LOG_DEBUG("end to work...");
    return nullptr;
}
