// The daemon's one cloud-side object. Its operations are inner_api.h's, session.h's, handshake.h's
// and recv_from_ssl.h's; this is the record that they share.
//
// Order of the locks, outermost first: `lock`, `hello_cloud_lock`; then those of the objects
// below, none of which is held while another lock of this list is taken.
#pragma once

#include <stdint.h>

#include <atomic>

#include "cloud/cloud_kit.h"
#include "cloud/msg_id_pool.h"
#include "cloud/response_for_cloud.h"
#include "link/dns.h"
#include "link/ssl_socket.h"
#include "util/mutex.h"
#include "util/task_pool.h"

// Bits of `state`.
constexpr uint32_t INNER_API_AVAILABLE = 0x1;
constexpr uint32_t INNER_API_CONNECTED = 0x2;
constexpr uint32_t INNER_API_RECONNECTING = 0x4;  // a reconnect task is queued or running

struct inner_api_t {
    // Held for a whole connection attempt, so nothing that must go on meanwhile waits for it.
    mutex_t lock ACQUIRED_BEFORE(hello_cloud_lock);

    // Written under `lock` (last_active_ms: by any sender), read by loops without it; each change
    // of the first two is announced through `changed`.
    std::atomic<uint32_t> state{0};
    std::atomic<int32_t> heartbeat_result{0};
    std::atomic<int32_t> heartbeat_interval_ms{0};
    std::atomic<uint32_t> last_active_ms{0};  // monotonic, of the last send to the cloud

    // The registration. kit_loaded 1: plug-in mode, cloud_kit is set; 0: client mode, client_fd is
    // the registered client's handle or 0.
    std::atomic<int32_t> kit_loaded{0};
    std::atomic<int32_t> client_fd{0};
    std::atomic<int32_t> client_hello_cloud{0};  // non-zero: shakes hands through the client

    // Only with link->recover, else always 0: what to wait before the next attempt. It grows with
    // each attempt and starts anew when a connection has held for a while, or when somebody orders.
    std::atomic<int32_t> back_off_ms{0};

    // A reconnection was ordered, but its task could not be started: session_catch_up makes up for
    // it.
    std::atomic<bool> reconnect_owed{false};

    event_t changed;
    std::atomic<bool> stopping{false};  // set once, before everything else is stopped

    // Fixed after init; each has its own lock.
    ssl_socket_t* ssl_socket = nullptr;
    task_pool_t* task_pool = nullptr;
    msg_id_pool_t* msg_id_pool = nullptr;
    response_list_t* response_list = nullptr;
    cloud_kit_t* cloud_kit = nullptr;
    char* domain = nullptr;
    int32_t port = 0;
    int32_t request_timeout_ms = 0;
    const link_options_t* link = nullptr;  // the settings' own; NULL without "link"

    ip_list_t* ip_list GUARDED_BY(lock) = nullptr;
    uint32_t reconnect_delay_ms GUARDED_BY(lock) = 0;  // to be waited before the next attempt
    bool reconnect_again GUARDED_BY(lock) = false;     // ordered while a reconnect task was running
    int32_t ordered_delay_ms GUARDED_BY(lock) = -1;    // by helloCloud's "stopConnect"; -1: none

    mutex_t hello_cloud_lock;
    cond_t hello_cloud_arrived;
    char* request_of_hello_cloud GUARDED_BY(hello_cloud_lock) = nullptr;  // owned
};

// Changes bits of `state` and announces it.
void inner_state_set_unsafe(inner_api_t* api, uint32_t bits) REQUIRES(api->lock);
void inner_state_clear_unsafe(inner_api_t* api, uint32_t bits) REQUIRES(api->lock);

// Available and connected.
bool inner_is_connected(const inner_api_t* api);

// Only with link->recover: there is no TLS connection, nor one being made. While `state` says
// connected, and in a handshake, that means that it was lost and is released.
bool inner_is_lost(const inner_api_t* api);

void inner_heartbeat_result_set(inner_api_t* api, int32_t result);

// Adds the message id to `json` and sends it to the cloud: 0, or the code of ssl_socket_send;
// -10000 when the id can't be added.
int32_t inner_send_with_id(inner_api_t* api, cJSON* json, int32_t id);
