#include "cloud/response_for_cloud.h"

#include <stdlib.h>
#include <unistd.h>

#include "cloud_svr_codes.h"
#include "util/json.h"
#include "util/log.h"
#include "util/memory.h"

namespace {

constexpr useconds_t kNoMemoryRestUs = 10000;

struct response_data_deleter_t {
    void operator()(response_data_t* data) const {
        free(data->response);
        free(data);
    }
};

using response_data_ptr = std::unique_ptr<response_data_t, response_data_deleter_t>;

// The link that leads to the entry of that id, or to the end of the chain.
response_data_t** find_unsafe(response_list_t* list, int32_t id) REQUIRES(list->lock) {
    response_data_t** link = &list->head;
    while (*link != nullptr && (*link)->id != id) {
        link = &(*link)->next;
    }
    return link;
}

// The entry that the link led to, which now leads to the next one; empty at the chain's end.
response_data_ptr unlink_entry(response_data_t** link) {
    response_data_t* const entry = *link;
    if (entry == nullptr) {
        return nullptr;
    }
    *link = entry->next;
    entry->next = nullptr;
    return response_data_ptr(entry);
}

bool is_overdue(const response_data_t* entry, uint32_t now_ms, int32_t timeout_ms) {
    return entry->response == nullptr &&
           static_cast<int32_t>(now_ms - entry->start_ms) >= timeout_ms;
}

// Milliseconds until that entry times out, 0 when it has an answer, has timed out or is gone.
uint32_t wait_left_unsafe(response_list_t* list, int32_t id) REQUIRES(list->lock) {
    const response_data_t* const entry = *find_unsafe(list, id);
    if (entry == nullptr || entry->response != nullptr) {
        return 0;
    }
    return deadline_left(deadline_t{entry->start_ms, static_cast<uint32_t>(list->timeout_ms)});
}

// Sleeps until the entry has its answer or is due for the time-out answer; false when closed.
bool wait_for_answer(response_list_t* list, int32_t id) {
    const mutex_lock_t held(list->lock);
    for (;;) {
        const uint32_t left = wait_left_unsafe(list, id);
        if (list->closed || left == 0) {
            return !list->closed;
        }
        list->answered.wait(list->lock, left);
    }
}

}  // namespace

response_list_t* response_list_init(int32_t timeout_ms) {
    record_ptr<response_list_t> list = record_new<response_list_t>();
    if (list == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(sizeof(response_list_t)));
        return nullptr;
    }
    list->timeout_ms = timeout_ms;
    return list.release();
}

void response_list_destroy(response_list_t* list) {
    if (list == nullptr) {
        LOG_WARN("the list is NULL");
        return;
    }
    const record_ptr<response_list_t> owned(list);
    const mutex_lock_t held(list->lock);
    while (list->head != nullptr) {
        unlink_entry(&list->head);
    }
}

void response_list_close(response_list_t* list) {
    const mutex_lock_t held(list->lock);
    list->closed = true;
    list->answered.wake_all();
}

int32_t response_data_add(response_list_t* list, int32_t id) {
    if (list == nullptr) {
        LOG_WARN("the list is NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    response_data_ptr entry(static_cast<response_data_t*>(calloc(1, sizeof(response_data_t))));
    if (entry == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(sizeof(response_data_t)));
        return CLOUD_SVR_E_RESOURCE;
    }
    entry->start_ms = monotonic_ms_get();
    entry->id = id;
    const mutex_lock_t held(list->lock);
    unlink_entry(find_unsafe(list, id));
    entry->next = list->head;
    list->head = entry.release();
    return 0;
}

int32_t response_data_set_response(response_list_t* list, int32_t id, const char* response) {
    if (list == nullptr || response == nullptr) {
        LOG_WARN("the list or response is NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    const mutex_lock_t held(list->lock);
    response_data_t* const entry = *find_unsafe(list, id);
    if (entry == nullptr) {
        LOG_ERROR("can not find the message id, id=%d", id);
        return CLOUD_SVR_E_NOT_FOUND;
    }
    free(entry->response);
    entry->response = string_dup(response);
    list->answered.wake_all();
    return 0;
}

int32_t response_data_get_response(response_list_t* list, int32_t id, char** response) {
    if (list == nullptr || response == nullptr || *response != nullptr) {
        LOG_WARN("the list or response is NULL, or *response is not NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    response_data_ptr entry;
    {
        const mutex_lock_t held(list->lock);
        response_data_t** const link = find_unsafe(list, id);
        if (*link != nullptr && (*link)->response == nullptr) {
            return CLOUD_SVR_E_PENDING;
        }
        entry = unlink_entry(link);
    }
    if (entry == nullptr) {
        LOG_ERROR("can not find the message id, id=%d", id);
        return CLOUD_SVR_E_NOT_FOUND;
    }
    *response = string_dup(entry->response);
    if (*response == nullptr) {
        LOG_ERROR("fail to get the response");
        return CLOUD_SVR_E_RESOURCE;
    }
    return 0;
}

int32_t response_data_wait(response_list_t* list, int32_t id, char** response) {
    for (;;) {
        int32_t code = response_data_get_response(list, id, response);
        if (code != CLOUD_SVR_E_PENDING) {
            return code;
        }
        if (!wait_for_answer(list, id)) {
            return CLOUD_SVR_E_NO_CONNECTION;
        }
        response_data_check_timeout(list);
        code = response_data_get_response(list, id, response);
        if (code != CLOUD_SVR_E_PENDING) {
            return code;
        }
        // Still without an answer although it is due: memory is out. Rest before the next try.
        usleep(kNoMemoryRestUs);
    }
}

void response_data_check_timeout(response_list_t* list) {
    if (list == nullptr) {
        LOG_WARN("the list is NULL");
        return;
    }
    text_ptr text;
    if (json_error_text(CLOUD_SVR_E_TIMEOUT, "Request timeout", &text) != 0) {
        LOG_ERROR("fail to create a new json object");
        return;
    }
    const uint32_t now_ms = monotonic_ms_get();
    const mutex_lock_t held(list->lock);
    for (response_data_t* entry = list->head; entry != nullptr; entry = entry->next) {
        if (is_overdue(entry, now_ms, list->timeout_ms)) {
            entry->response = string_dup(text.get());
        }
    }
    list->answered.wake_all();
}
