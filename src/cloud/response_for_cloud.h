// Where the registered client's answers to the cloud's requests meet the threads that wait for
// them. An entry stands under the cloud's message id; the list is short, lookups are linear. Any
// thread may call.
#pragma once

#include <stdint.h>

#include "util/mutex.h"

struct response_data_t {
    uint32_t start_ms;  // monotonic, when it was added
    int32_t id;
    char* response;  // JSON text; NULL while none has come
    response_data_t* next;
};

struct response_list_t {
    mutex_t lock;
    cond_t answered;
    response_data_t* head GUARDED_BY(lock) = nullptr;  // newest first
    bool closed GUARDED_BY(lock) = false;
    int32_t timeout_ms = 0;  // fixed after init
};

// An empty list whose entries time out after `timeout_ms`; NULL when memory is out.
response_list_t* response_list_init(int32_t timeout_ms);

// Frees the list and every entry. Nobody may use it any more.
void response_list_destroy(response_list_t* list);

// Ends every response_data_wait, now and from now on, with -1000.
void response_list_close(response_list_t* list);

// Adds an entry, in place of one with the same id: 0, -20107, -10000.
int32_t response_data_add(response_list_t* list, int32_t id);

// Stores a copy of an answer, in place of one stored before: 0, -20107, -2000 for an unknown id.
int32_t response_data_set_response(response_list_t* list, int32_t id, const char* response);

// Takes an answer out, the entry with it; `response` must point to NULL and then owns the text.
//   0; -2001 when there is no answer yet; -2000 for an unknown id; -20107; -10000.
int32_t response_data_get_response(response_list_t* list, int32_t id, char** response);

// Waits for the answer and takes it: as above, but for -2001. The time-out answer ends the wait
// when the entry is old enough, whether or not anybody else checks; -1000 when closed.
int32_t response_data_wait(response_list_t* list, int32_t id, char** response);

// Stores {"error_code":-20002,"msg":"Request timeout"} in each entry that has waited too long.
void response_data_check_timeout(response_list_t* list);
