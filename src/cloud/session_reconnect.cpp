// The reconnect task: attempts one after the other, with a growing delay in between.
#include "cloud/back_off.h"
#include "cloud/session.h"
#include "cloud_svr_codes.h"
#include "util/log.h"
#include "util/random.h"

namespace {

constexpr int32_t kConnectTimeoutMs = 5000;

bool is_disconnected(const inner_api_t* api) {
    constexpr uint32_t kBoth = INNER_API_AVAILABLE | INNER_API_CONNECTED;
    return (api->state & kBoth) == INNER_API_AVAILABLE && !api->stopping;
}

bool is_unavailable(void* arg) {
    const auto* const api = static_cast<const inner_api_t*>(arg);
    return (api->state & INNER_API_AVAILABLE) == 0 || api->stopping;
}

bool is_no_more_disconnected(void* arg) {
    return !is_disconnected(static_cast<const inner_api_t*>(arg));
}

// Waits out what the cloud ordered, also what it orders meanwhile.
void ordered_delay_wait(inner_api_t* api) {
    for (;;) {
        uint32_t delay_ms = 0;
        {
            const mutex_lock_t held(api->lock);
            delay_ms = std::exchange(api->reconnect_delay_ms, 0);
        }
        const deadline_t deadline = {monotonic_ms_get(), delay_ms};
        if (delay_ms == 0 || event_wait(&api->changed, deadline, is_unavailable, api)) {
            return;
        }
    }
}

// After the attempt the back-off is that long. With link->recover it stays so for a connection that
// doesn't hold.
int32_t attempt(inner_api_t* api, int32_t next_delay_ms) {
    if (link_recovers(api->link)) {
        api->back_off_ms = next_delay_ms;
    }
    ordered_delay_wait(api);
    return session_connect(api, kConnectTimeoutMs);
}

bool is_refused(int32_t code) {
    if (code != CLOUD_SVR_E_REJECTED && code != CLOUD_SVR_E_STOPPED) {
        return false;
    }
    LOG_WARN("stop to reconnect");
    LOG_ERROR("fail to connect the cloud, error=%d", code);
    return true;
}

// The wait that stands for that delay of the back-off.
int32_t wait_get(const inner_api_t* api, int32_t delay_ms) {
    return link_draws(api->link) ? back_off_jitter(delay_ms, random_get()) : delay_ms;
}

// Attempts until one succeeds or is refused, or the connection comes about in another way.
void session_reconnect(inner_api_t* api) {
    int32_t delay_ms = api->back_off_ms;
    for (;;) {
        if (delay_ms > 0) {
            const int32_t wait_ms = wait_get(api, delay_ms);
            LOG_WARN("next time to reconnect is %d ms", wait_ms);
            if (event_wait(&api->changed, deadline_in(wait_ms), is_no_more_disconnected, api)) {
                return;
            }
        }
        delay_ms = back_off_next(delay_ms);
        const int32_t code = attempt(api, delay_ms);
        if (code == 0 || is_refused(code)) {
            return;
        }
        LOG_WARN("fail to reconnect the cloud, code=%d", code);
    }
}

// Ends the task in one step with the look whether an order came since the last attempt: none is
// dropped.
bool task_is_over(inner_api_t* api) {
    const mutex_lock_t held(api->lock);
    if (api->reconnect_again && is_disconnected(api)) {
        api->reconnect_again = false;
        return false;
    }
    inner_state_clear_unsafe(api, INNER_API_RECONNECTING);
    return true;
}

}  // namespace

void task_reconnect(void* arg) {
    auto* const api = static_cast<inner_api_t*>(arg);
    do {
        LOG_DEBUG("begin to connect the cloud...");
        session_reconnect(api);
    } while (!task_is_over(api));
    LOG_DEBUG("end to connect the cloud...");
}
