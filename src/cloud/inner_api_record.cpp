#include "cloud/inner_api_record.h"

#include "cloud_svr_codes.h"

void inner_state_set_unsafe(inner_api_t* api, uint32_t bits) {
    api->state |= bits;
    event_announce(&api->changed);
}

void inner_state_clear_unsafe(inner_api_t* api, uint32_t bits) {
    api->state &= ~bits;
    event_announce(&api->changed);
}

bool inner_is_connected(const inner_api_t* api) {
    constexpr uint32_t kBoth = INNER_API_AVAILABLE | INNER_API_CONNECTED;
    return (api->state & kBoth) == kBoth;
}

bool inner_is_lost(const inner_api_t* api) {
    return link_recovers(api->link) && ssl_socket_get_status(api->ssl_socket) == 0;
}

void inner_heartbeat_result_set(inner_api_t* api, int32_t result) {
    const mutex_lock_t held(api->lock);
    api->heartbeat_result = result;
    event_announce(&api->changed);
}

int32_t inner_send_with_id(inner_api_t* api, cJSON* json, int32_t id) {
    return json_set_id(json, id) ? ssl_socket_send(api->ssl_socket, json) : CLOUD_SVR_E_RESOURCE;
}
