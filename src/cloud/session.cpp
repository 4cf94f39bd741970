#include "cloud/session.h"

#include "cloud/handshake.h"
#include "cloud/recv_from_ssl.h"
#include "cloud_svr_codes.h"
#include "util/log.h"
#include "util/memory.h"

namespace {

int32_t drop_unsafe(inner_api_t* api) REQUIRES(api->lock) {
    const int32_t code = inner_is_lost(api) ? 0 : ssl_socket_disconnect(api->ssl_socket);
    inner_state_clear_unsafe(api, INNER_API_CONNECTED);
    return code;
}

// The next address in turn; the domain is resolved anew at the end of each round.
int32_t next_ip_unsafe(inner_api_t* api, const char** ip) REQUIRES(api->lock) {
    *ip = ip_list_get_next_ip(api->ip_list);
    if (*ip != nullptr) {
        return 0;
    }
    ip_list_destroy(api->ip_list);
    api->ip_list = ip_list_parse(api->domain);
    if (api->ip_list == nullptr) {
        LOG_ERROR("fail to parse the domain, domain=%s", api->domain);
        return CLOUD_SVR_E_NO_CONNECTION;
    }
    *ip = ip_list_get_next_ip(api->ip_list);
    if (*ip == nullptr) {
        LOG_ERROR("fail to get the IP");
        return CLOUD_SVR_E_RESOURCE;
    }
    return 0;
}

void session_task_free(void* arg) {
    const record_ptr<session_task_t> owned(static_cast<session_task_t*>(arg));
}

int32_t task_start_unsafe(inner_api_t* api, task_pool_work_fn work) REQUIRES(api->lock) {
    record_ptr<session_task_t> task = record_new<session_task_t>();
    if (task == nullptr) {
        return CLOUD_SVR_E_RESOURCE;
    }
    *task = session_task_t{api, ssl_socket_get_connection(api->ssl_socket)};
    const int32_t code = task_pool_add(api->task_pool, work, session_task_free, task.get());
    if (code == 0) {
        (void)task.release();
    }
    return code;
}

int32_t tasks_start_unsafe(inner_api_t* api) REQUIRES(api->lock) {
    int32_t code = task_start_unsafe(api, task_timeout_check);
    if (code != 0) {
        LOG_ERROR("fail to create a task to check whether the request is time out, error=%d", code);
        return code;
    }
    code = task_start_unsafe(api, task_receive);
    if (code != 0) {
        LOG_ERROR("fail to create a task to receive, error=%d", code);
    }
    return code;
}

int32_t transport_connect_unsafe(inner_api_t* api, int32_t timeout_ms) REQUIRES(api->lock) {
    const char* ip = nullptr;
    int32_t code = next_ip_unsafe(api, &ip);
    if (code != 0) {
        return code;
    }
    LOG_DEBUG("using IP: %s", ip);
    code = ssl_socket_connect(api->ssl_socket, ip, api->port, timeout_ms);
    if (code != 0) {
        LOG_ERROR("fail to connect the cloud, error=%d", code);
    }
    return code;
}

// Requests of an earlier connection that are overdue give their ids back first: a pool full of
// them must not keep the handshake from its own.
void overdue_requests_end(inner_api_t* api) {
    const text_ptr text = timeout_answer_get();
    if (text != nullptr) {
        check_timeout_of_request(api, text.get());
    }
}

int32_t do_handshake_unsafe(inner_api_t* api) REQUIRES(api->lock) {
    int32_t code = handshake(api);
    if (code != 0) {
        LOG_ERROR("fail to handshake to the cloud, error=%d", code);
        return code;
    }
    inner_state_set_unsafe(api, INNER_API_CONNECTED);
    api->last_active_ms = monotonic_ms_get();
    return tasks_start_unsafe(api);
}

int32_t do_connect(inner_api_t* api, int32_t timeout_ms) REQUIRES(api->lock) {
    int32_t code = transport_connect_unsafe(api, timeout_ms);
    if (code != 0) {
        LOG_ERROR("fail to connect to the cloud, error=%d", code);
        return code;
    }
    overdue_requests_end(api);
    code = do_handshake_unsafe(api);
    if (code != 0) {
        (void)drop_unsafe(api);
    }
    return code;
}

int32_t unsafe_connect(inner_api_t* api, int32_t timeout_ms) REQUIRES(api->lock) {
    if ((api->state & INNER_API_CONNECTED) != 0) {
        LOG_WARN("already connect to the cloud");
        return 0;
    }
    if (api->stopping) {
        LOG_WARN("the inner_api_t is not available");
        return CLOUD_SVR_E_NO_CONNECTION;
    }
    api->reconnect_again = false;  // this attempt is what was ordered so far
    return do_connect(api, timeout_ms);
}

// Whether there is anybody to shake hands with the cloud.
bool can_connect(const inner_api_t* api) {
    if (api->kit_loaded == 0) {
        if (api->client_fd == 0) {
            LOG_WARN("there is no registered client");
        }
        return api->client_fd != 0;
    }
    const cloud_kit_func_t* const func = cloud_kit_get_func(api->cloud_kit);
    if (func == nullptr) {
        LOG_ERROR("fail to get the functions from the cloud-kit.so");
        return false;
    }
    if (func->respond_cloud == nullptr && func->build_request_of_hello_cloud == nullptr &&
        func->recv_response_of_hello_cloud == nullptr) {
        LOG_ERROR("fail to the functions in the cloud-kit.so are NULL");
        return false;
    }
    return true;
}

// Leaves the order to the task that runs already. A delay is kept only if the cloud named it: it
// must be waited out whenever it came.
void order_leave_unsafe(inner_api_t* api, int32_t delay_ms) REQUIRES(api->lock) {
    LOG_WARN("the inner_api_t is already reconnecting");
    api->reconnect_again = true;
    if (delay_ms > 0) {
        api->reconnect_delay_ms = static_cast<uint32_t>(delay_ms);
    }
}

void start_reconnect_unsafe(inner_api_t* api, int32_t force, int32_t delay_ms) REQUIRES(api->lock) {
    if (force != 0) {
        (void)drop_unsafe(api);
    }
    if (delay_ms > 0) {
        api->back_off_ms = 0;  // the delay that the cloud names stands in its place
    }
    if ((api->state & INNER_API_AVAILABLE) == 0 || api->stopping) {
        LOG_WARN("the inner_api_t is not available");
        return;
    }
    if ((api->state & INNER_API_CONNECTED) != 0) {
        LOG_WARN("the inner_api_t is already connected");
        return;
    }
    if ((api->state & INNER_API_RECONNECTING) != 0) {
        order_leave_unsafe(api, delay_ms);
        return;
    }
    if (!can_connect(api)) {
        return;
    }
    api->reconnect_delay_ms = delay_ms > 0 ? static_cast<uint32_t>(delay_ms) : 0;
    api->reconnect_again = false;
    inner_state_set_unsafe(api, INNER_API_RECONNECTING);
    const int32_t code = task_pool_add(api->task_pool, task_reconnect, nullptr, api);
    if (code != 0) {
        LOG_ERROR("fail to create a task to reconnect, error=%d", code);
        inner_state_clear_unsafe(api, INNER_API_RECONNECTING);
        api->reconnect_owed = true;
    }
}

// Orders the reconnection of a connection that was lost; false when there is none, be it that
// another thread was here first. A connection made since is up and so out of reach.
bool recover_unsafe(inner_api_t* api) REQUIRES(api->lock) {
    if ((api->state & INNER_API_CONNECTED) == 0 || !inner_is_lost(api)) {
        return false;
    }
    inner_state_clear_unsafe(api, INNER_API_CONNECTED);
    start_reconnect_unsafe(api, 0, 0);
    return true;
}

}  // namespace

int32_t session_connect(inner_api_t* api, int32_t timeout_ms) {
    if (api == nullptr) {
        LOG_ERROR("the inner_api_t is NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    const mutex_lock_t held(api->lock);
    const int32_t code = unsafe_connect(api, timeout_ms);
    const int32_t ordered_ms = std::exchange(api->ordered_delay_ms, -1);
    if (ordered_ms >= 0) {
        start_reconnect_unsafe(api, 1, ordered_ms);
    }
    return code;
}

int32_t session_disconnect(inner_api_t* api) {
    if (api == nullptr) {
        LOG_ERROR("the inner_api_t is NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    const mutex_lock_t held(api->lock);
    return drop_unsafe(api);
}

void session_start_reconnect(inner_api_t* api, int32_t force, int32_t delay_ms) {
    if (api == nullptr) {
        LOG_ERROR("the inner_api_t is NULL");
        return;
    }
    const mutex_lock_t held(api->lock);
    if (force != 0) {
        api->back_off_ms = 0;
    }
    start_reconnect_unsafe(api, force, delay_ms);
}

void session_replace(inner_api_t* api, uint32_t connection) {
    const mutex_lock_t held(api->lock);
    if (!recover_unsafe(api) && ssl_socket_get_connection(api->ssl_socket) == connection) {
        start_reconnect_unsafe(api, 1, 0);
    }
}

void session_catch_up(inner_api_t* api) {
    // An attempt that holds the lock needs no help.
    if (!api->reconnect_owed || !api->lock.try_lock()) {
        return;
    }
    api->reconnect_owed = false;
    start_reconnect_unsafe(api, 0, static_cast<int32_t>(api->reconnect_delay_ms));
    api->lock.unlock();
}

bool session_task_goes_on(const session_task_t* task) {
    // A connection lost before its tasks were started has given them the number that came after.
    return inner_is_connected(task->api) && !inner_is_lost(task->api) &&
           ssl_socket_get_connection(task->api->ssl_socket) == task->connection;
}

void task_receive(void* arg) {
    const auto* const task = static_cast<const session_task_t*>(arg);
    LOG_DEBUG("begin to receive from the cloud...");
    while (session_task_goes_on(task)) {
        const int32_t code = recv_from_ssl(task->api, task->connection);
        if (code == CLOUD_SVR_E_NOTHING) {
            ssl_socket_idle(task->api->ssl_socket, task->connection);
        }
    }
    LOG_DEBUG("end to receive from the cloud...");
    if (inner_is_lost(task->api)) {
        const mutex_lock_t held(task->api->lock);
        (void)recover_unsafe(task->api);
    }
}
