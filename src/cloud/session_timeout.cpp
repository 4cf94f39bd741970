// The time-out task of a connection: heartbeats, and the end of whatever has waited too long.
#include "cloud/handshake.h"
#include "cloud/session.h"
#include "cloud_svr_codes.h"
#include "ipc/cloud_svr_message.h"
#include "util/log.h"
#include "util/memory.h"

namespace {

constexpr uint32_t kCheckIntervalMs = 500;
constexpr int kHeartbeatAttempts = 3;
constexpr uint32_t kHeldMs = 60000;

bool is_over(void* arg) {
    return !session_task_goes_on(static_cast<session_task_t*>(arg));
}

bool heartbeat_is_decided(void* arg) {
    const auto* const task = static_cast<const session_task_t*>(arg);
    return task->api->heartbeat_result != CLOUD_SVR_E_PENDING || !session_task_goes_on(task);
}

// One heartbeat and its answer: 0, -20002, or what failed.
int32_t heartbeat_attempt(session_task_t* task) {
    inner_api_t* const api = task->api;
    inner_heartbeat_result_set(api, CLOUD_SVR_E_PENDING);
    const int32_t id = heartbeat_async(api);
    if (id < 0) {
        LOG_ERROR("fail to send the heartbeat, error=%d", id);
        return id;
    }
    api->last_active_ms = monotonic_ms_get();
    const deadline_t deadline = deadline_in(api->request_timeout_ms);
    const bool decided = event_wait(&api->changed, deadline, heartbeat_is_decided, task);
    return decided ? api->heartbeat_result.load() : CLOUD_SVR_E_TIMEOUT;
}

void check_timeout_of_heartbeat(session_task_t* task) {
    int32_t code = CLOUD_SVR_E_TIMEOUT;
    for (int attempt = 0; attempt < kHeartbeatAttempts; ++attempt) {
        code = heartbeat_attempt(task);
        const bool again = code == CLOUD_SVR_E_TIMEOUT || code == CLOUD_SVR_E_NO_CONNECTION;
        if (!again || inner_is_lost(task->api)) {
            break;
        }
    }
    if (code == 0 || !session_task_goes_on(task)) {
        return;
    }
    LOG_ERROR("fail to send the heartbeat, error=%d", code);
    if (code == CLOUD_SVR_E_TIMEOUT || code == CLOUD_SVR_E_NO_CONNECTION) {
        session_replace(task->api, task->connection);
    }
}

void heartbeat_interval(session_task_t* task) {
    const inner_api_t* const api = task->api;
    const uint32_t idle_ms = monotonic_ms_get() - api->last_active_ms;
    if (static_cast<int32_t>(idle_ms) >= api->heartbeat_interval_ms) {
        check_timeout_of_heartbeat(task);
    }
}

void request_is_overdue(inner_api_t* api, int32_t id, const msg_data_t& data, const char* text) {
    LOG_WARN("the request is time out, msg_id=%d, time=%d ms", id,
             static_cast<int>(monotonic_ms_get() - data.start_ms));
    if (data.client_fd == 0) {
        // Atomic, not under `lock`: this also runs inside a connection attempt, which holds it.
        api->heartbeat_result = CLOUD_SVR_E_TIMEOUT;
        event_announce(&api->changed);
    } else {
        cloud_svr_notify_message(data.client_fd, id, text);
    }
}

// Once in each quiet period, told by the time of the last send.
void quiet_give_back(const inner_api_t* api, uint32_t* given_back_for) {
    const uint32_t last_active_ms = api->last_active_ms;
    if (last_active_ms != *given_back_for &&
        monotonic_ms_get() - last_active_ms >= kCheckIntervalMs) {
        *given_back_for = last_active_ms;
        memory_give_back();
    }
}

}  // namespace

text_ptr timeout_answer_get() {
    text_ptr text;
    const int result = json_error_text(CLOUD_SVR_E_TIMEOUT, "Request time out", &text);
    if (result == -1) {
        LOG_ERROR("fail to create a new json object");
    } else if (result == -2) {
        LOG_ERROR("fail to get the json string");
    }
    return text;
}

void check_timeout_of_request(inner_api_t* api, const char* text) {
    const uint32_t now_ms = monotonic_ms_get();
    int32_t id = 0;
    msg_data_t data;
    while ((id = msg_id_take_overdue(api->msg_id_pool, id, now_ms, &data)) != 0) {
        request_is_overdue(api, id, data, text);
    }
}

void task_timeout_check(void* arg) {
    auto* const task = static_cast<session_task_t*>(arg);
    LOG_DEBUG("begin to check the time out...");
    const text_ptr text = timeout_answer_get();
    if (text == nullptr) {
        // Without this task nobody would notice that the link is dead, nor end what is overdue.
        session_replace(task->api, task->connection);
        return;
    }
    // Sleeps until the next check or until the connection is over, whichever comes first.
    deadline_t next = {monotonic_ms_get(), kCheckIntervalMs};
    const deadline_t held = {next.start_ms, kHeldMs};
    uint32_t given_back_for = 0;
    while (!event_wait(&task->api->changed, next, is_over, task)) {
        next.start_ms = monotonic_ms_get();
        heartbeat_interval(task);
        check_timeout_of_request(task->api, text.get());
        response_data_check_timeout(task->api->response_list);
        quiet_give_back(task->api, &given_back_for);
        if (deadline_left(held) == 0) {
            task->api->back_off_ms = 0;
        }
    }
    LOG_DEBUG("end to check the time out...");
}
