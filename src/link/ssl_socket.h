// The one TLS connection to the cloud and the frame that every message to and from it travels in:
// 0xA1 0xB2, a 16-bit big-endian length, that many bytes of JSON text.
//
// Any thread may call any function. A frame is written whole before the next one and read whole by
// one thread; neither holds `lock` while it waits for the network, so a stalled cloud blocks no
// disconnect. A frame that stalls, in or out, fails after SSL_SOCKET_STALL_MS.
//
// With `recover` of the options a connection that can't carry another frame is released by the call
// that finds it so: one that the cloud has closed, with or without close_notify, or reset; that
// the kernel or OpenSSL has given up; whose bytes are out of step, as after a wrong magic or a
// frame that stalled, came in parts or found no memory. A body that isn't JSON, or a wait without a
// frame, is no loss.
#pragma once

#include <stdint.h>

#include <atomic>

#include "link/link_options.h"
#include "link/tls.h"
#include "util/json.h"
#include "util/mutex.h"

constexpr int32_t SSL_SOCKET_STALL_MS = 30000;
constexpr size_t SSL_SOCKET_TEXT_LIMIT = 65535;

struct ssl_socket_t {
    const link_options_t* options = nullptr;  // borrowed, fixed after init; NULL without "link"

    // Held while one frame is written, or read, its waits included. Before `lock`.
    mutex_t write_turn ACQUIRED_BEFORE(lock);
    mutex_t read_turn ACQUIRED_BEFORE(lock);

    mutex_t lock;  // guards what follows and each OpenSSL call

    // Atomic for readers without the lock; written under it. `connected`: 1 from the start of an
    // attempt until a disconnect or the peer's TLS close. `connection`: another number with each
    // attempt and each disconnect, so that who waited knows whether it is still the same one.
    std::atomic<int32_t> connected{0};
    std::atomic<uint32_t> connection{0};

    // The number of the connection that was lost last, so that who used it knows it from one that
    // was dropped; 0: none.
    std::atomic<uint32_t> lost{0};

    tls_t tls GUARDED_BY(lock);
    // Without `options` dropped by the first disconnect.
    char* cer_file GUARDED_BY(lock) = nullptr;

    std::atomic<bool> interrupted{false};  // once set, every wait ends soon, as a failure
};

// An object without a connection. It copies `cer_file` and borrows `options`, which may be NULL.
// NULL when `cer_file` is NULL or memory is out.
ssl_socket_t* ssl_socket_init(const char* cer_file, const link_options_t* options);

// Connects to the dotted IPv4 address `host`; `timeout_ms` bounds the TCP connect. Does nothing
// when it is connected already.
//   0; -20107; -20106 for a port outside 1..65535; -1000; -10000.
int32_t ssl_socket_connect(ssl_socket_t* socket, const char* host, int32_t port,
                           int32_t timeout_ms);

// 0, or -20107. What the peer's TLS close left behind is not touched: the connection counts as
// disconnected already, and its descriptor and OpenSSL records stay. With `recover` it leaves
// nothing.
int32_t ssl_socket_disconnect(ssl_socket_t* socket);

// Disconnects and frees. Nobody may use the object any more.
void ssl_socket_destroy(ssl_socket_t* socket);

// 1 connected, 0 not, -20107 for NULL.
int32_t ssl_socket_get_status(ssl_socket_t* socket);

// Ends every wait in this object, now and from now on, as a failure.
void ssl_socket_interrupt(ssl_socket_t* socket);

// The present connection's number, for ssl_socket_rcv_on.
uint32_t ssl_socket_get_connection(const ssl_socket_t* socket);

// Writes one frame; `json` stays the caller's.
//   0; -20107; -10000; -10102 when the text is longer than a frame holds; -1000.
int32_t ssl_socket_send(ssl_socket_t* socket, const cJSON* json);

// Waits up to `timeout_ms` for a frame and reads it. 0 with a new tree in `json`, the caller's;
// -3000 when nothing came; -20002; -10101 for a frame that could not be read in full, or no
// connection; -10100 for a wrong magic or a body that is not JSON; -10000; -20107.
int32_t ssl_socket_rcv(ssl_socket_t* socket, int32_t timeout_ms, json_ptr* json);

// The same for a connection of that number only: a later one's frames are never taken (-3000).
int32_t ssl_socket_rcv_on(ssl_socket_t* socket, uint32_t connection, int32_t timeout_ms,
                          json_ptr* json);

// Sleeps until there may be something to receive on the connection of that number, until it is
// over, or for a second at most.
void ssl_socket_idle(ssl_socket_t* socket, uint32_t connection);

// Only with `recover`: releases the present connection, which can't carry another frame, and logs
// why. Whoever waits on it is woken; its sends and receives fail from now on.
void ssl_socket_lose_unsafe(ssl_socket_t* socket, const char* why) REQUIRES(socket->lock);
