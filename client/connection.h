// The record behind cloud_svr_client_t, and what its parts share.
#pragma once

#include <stdint.h>

#include "calls.h"
#include "cloud_svr_client.h"
#include "ipc/ipc_socket.h"
#include "util/json.h"
#include "util/mutex.h"

struct cloud_svr_client {
    // Fixed after connecting.
    descriptor_t socket;

    // Held while a frame is sent, so that two never mix. Taken without `lock`.
    mutex_t send_lock;

    mutex_t lock;
    cond_t changed;  // somebody stopped reading, a waiter has its answer, the connection is lost
    bool is_reading GUARDED_BY(lock) = false;
    int32_t lost GUARDED_BY(lock) = 0;  // why there is no connection any more
    bool has_agent GUARDED_BY(lock) = false;
    cloud_svr_agent_t agent GUARDED_BY(lock) = {};
    calls_t calls GUARDED_BY(lock);

    // Owned by the one thread that set is_reading.
    ipc_reader_t reader;
};

// What is to be done for a message once the lock is free.
struct task_t {
    outcome_t outcome;
    json_ptr message;  // what the daemon asks of the agent; empty: nothing
    bool has_agent = false;
    cloud_svr_agent_t agent = {};
};

// Reads one frame, waiting at most that long: 0 with `text` set, IPC_READER_MORE, or why the
// connection is of no more use. Bytes that come slowly are waited for, whatever their pace.
int32_t connection_read(cloud_svr_client_t* client, int32_t wait_ms, text_ptr* text);

// Sends one frame: 0, -10000, -1101, -1102. After a failed send the connection is shut down, since
// the frame may be cut short; what came before can still be read.
int32_t connection_send(cloud_svr_client_t* client, const text_ptr& text) EXCLUDES(client->lock);

// Waits for the greeting of a connection that nobody else knows yet.
int32_t connection_greet(cloud_svr_client_t* client, const deadline_t& deadline);

// Sorts a message in; what is left to do for it goes into `task`.
void message_take_unsafe(cloud_svr_client_t* client, json_ptr message, task_t* task)
    REQUIRES(client->lock);

// Does it: calls back, and answers for the agent.
void task_run(cloud_svr_client_t* client, const task_t& task) EXCLUDES(client->lock);
