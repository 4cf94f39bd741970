// Keeps the one cloud connection alive: connects, runs the receive and the time-out task of each
// connection, sends heartbeats, times requests out and reconnects with a growing delay. All state
// is the inner API record's.
#pragma once

#include <stdint.h>

#include "cloud/inner_api_record.h"

// Connects now, on the calling thread, to the next address of the domain: TCP (at most
// `timeout_ms`), TLS, handshake. `lock` is held all the while.
//   0, also when connected already; -20107; the code of the step that failed.
int32_t session_connect(inner_api_t* api, int32_t timeout_ms);

// Drops the connection; its tasks end by themselves. The disconnect's code, or -20107.
int32_t session_disconnect(inner_api_t* api);

// Asks for a reconnection on a task, `delay_ms` from now. A non-zero `force` drops the connection
// first, and the back-off starts anew. An order that comes while a reconnect task runs is carried
// out by that task.
void session_start_reconnect(inner_api_t* api, int32_t force, int32_t delay_ms);

// Tries again to start a reconnection whose task could not be started: without a thread for it the
// device would stay disconnected until somebody asks for something. Never waits.
void session_catch_up(inner_api_t* api);

// One connection's tasks are given this.
struct session_task_t {
    inner_api_t* api;
    uint32_t connection;
};

// Whether that connection is the present one and up.
bool session_task_goes_on(const session_task_t* task);

// Task bodies: `arg` is a session_task_t, for task_reconnect the inner_api_t.
void task_receive(void* arg);
void task_timeout_check(void* arg);
void task_reconnect(void* arg);

// Gives the requests that have waited too long their end: the time-out answer `text` to a client,
// -20002 to the heartbeat.
void check_timeout_of_request(inner_api_t* api, const char* text);

// The text of that answer; empty, logged, when memory is out.
text_ptr timeout_answer_get();

// session_start_reconnect(api, 1, 0), unless that connection has been replaced already. With
// link->recover the back-off of a connection that didn't hold is waited out first.
void session_replace(inner_api_t* api, uint32_t connection);
