// The ids of what the daemon sends to the cloud and awaits an answer to. Each id in use remembers
// when its request was sent, how long it may wait and which client waits. Ids run from 1 to the
// pool's size and are handed out round-robin. Any thread may call.
#pragma once

#include <stdint.h>

#include "util/mutex.h"

struct msg_data_t {
    uint32_t start_ms;  // monotonic
    int32_t timeout_ms;
    int32_t client_fd;  // local_client handle; 0: the daemon's own request
};

constexpr int32_t MSG_ID_BLOCK_SIZE = 64;

// The records of 64 consecutive ids. Blocks exist only while one of their ids is in use, so a pool
// of any size takes no more than its table of pointers.
struct msg_id_block_t {
    uint64_t used;  // bit i: data[i] holds a record
    msg_data_t data[MSG_ID_BLOCK_SIZE];
};

struct msg_id_pool_t {
    mutex_t lock;
    cond_t given_back;
    int32_t max_size = 0;  // fixed after init
    int32_t next_index GUARDED_BY(lock) = 0;
    int32_t used_count GUARDED_BY(lock) = 0;
    bool closed GUARDED_BY(lock) = false;
    msg_id_block_t** blocks GUARDED_BY(lock) = nullptr;
};

// A pool of `size` ids; NULL, logged, when size is below 1 or memory is out.
msg_id_pool_t* msg_id_pool_init(int32_t size);

// Frees the pool and every record. Nobody may use it any more.
void msg_id_pool_destroy(msg_id_pool_t* pool);

// Ends every wait for an id, now and from now on, with -1000.
void msg_id_pool_close(msg_id_pool_t* pool);

int32_t msg_id_pool_get_max_size(const msg_id_pool_t* pool);

// The record of an id, the pool's own, or NULL for a free one. For the party that will give the id
// back: who races for it uses msg_id_take instead.
const msg_data_t* msg_id_pool_get_data(msg_id_pool_t* pool, int32_t id);

// Takes a free id for a copy of `data`. While there is none it waits until one is given back, at
// most data->timeout_ms.
//   the id; -20107; -10000 when memory is out; -20002 when the wait ran out; -1000 when closed.
int32_t msg_id_get_from_idle(msg_id_pool_t* pool, const msg_data_t* data);

// Gives an id back; one that is free already is left alone.
void msg_id_put_to_idle(msg_id_pool_t* pool, int32_t id);

// Copies the record and gives the id back in one step, so that of an answer and a time-out exactly
// one gets it. False when the id is free.
bool msg_id_take(msg_id_pool_t* pool, int32_t id, msg_data_t* data);

// The same for the first id above `after` whose record has waited its time-out at `now_ms`: that
// id, or 0 when there is none.
int32_t msg_id_take_overdue(msg_id_pool_t* pool, int32_t after, uint32_t now_ms, msg_data_t* data);
