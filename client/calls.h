// What a client has asked the daemon and not got an answer to. Every function wants the client's
// lock held; none calls back: what is to be told comes out as an outcome_t.
//
// A request to the cloud has two answers: the daemon's, which tells the message id, and the
// cloud's, which bears that id only. They come in any order. A request that nobody waits for any
// more stays until both are here, lest its late answer passes for that of a later request with the
// same id.
#pragma once

#include <stdint.h>

#include "cloud_svr_client.h"
#include "util/clock.h"
#include "util/memory.h"

// A thread that waits for a call, on its stack; written under the client's lock.
struct waiter_t {
    bool done = false;
    int32_t code = 0;
    text_ptr answer;
};

// Whom a call's end is told: a waiter, a callback, or nobody any more.
struct audience_t {
    waiter_t* waiter;
    cloud_svr_answer_fn on_answer;
    void* arg;
};

// An end that is to be told by a callback, without the lock; nothing when `on_answer` is NULL.
struct outcome_t {
    cloud_svr_answer_fn on_answer = nullptr;
    void* arg = nullptr;
    int32_t code = 0;
    text_ptr answer;
};

struct call_t {
    call_t* next;
    int32_t inner_id;
    int32_t id;         // the daemon's for the request; 0 until it is told
    bool is_for_cloud;  // ends with the cloud's answer, not with the daemon's
    deadline_t deadline;
    audience_t audience;
};

// A cloud's answer that came before its id.
struct early_t {
    early_t* next;
    int32_t id;
    char* answer;
};

struct calls_t {
    call_t* first = nullptr;   // oldest first
    early_t* early = nullptr;  // newest first, only while a call still lacks its id
    int32_t last_inner_id = 0;
};

constexpr int32_t CALLS_ABANDONED_LIMIT = 64;

// A new call's inner id, or -10000.
int32_t calls_add(calls_t* calls, bool is_for_cloud, const deadline_t& deadline,
                  const audience_t& audience);

// Takes a call back, untold; false when its end has been told already.
bool calls_remove(calls_t* calls, int32_t inner_id);

// Nobody waits for the call any more.
void calls_abandon(calls_t* calls, int32_t inner_id);

// The daemon's answer to a call, with the message id that it gave a request to the cloud.
outcome_t calls_answer(calls_t* calls, int32_t inner_id, int32_t code, int32_t id);

// The cloud's answer to the request with that id.
outcome_t calls_cloud_answer(calls_t* calls, int32_t id, const char* answer);

// The next call with a callback whose time is over. False when there is none.
bool calls_take_overdue(calls_t* calls, outcome_t* outcome);

// Ends any call that is left, with `code`. False when there is none.
bool calls_take_any(calls_t* calls, int32_t code, outcome_t* outcome);

// Tells every waiter `code`.
void calls_end_waits(calls_t* calls, int32_t code);

// Milliseconds until calls_take_overdue has one; INT32_MAX: never.
int32_t calls_left(const calls_t* calls);
