#include "calls.h"

#include <string.h>

namespace {

// What the daemon says in the cloud's place when the cloud didn't answer in time.
constexpr char kTimeOutAnswer[] = "{\"error_code\":-20002,\"msg\":\"Request time out\"}";

// The link that holds the call of that inner id; the list's end when there is none.
call_t** call_find(calls_t* calls, int32_t inner_id) {
    call_t** link = &calls->first;
    while (*link != nullptr && (*link)->inner_id != inner_id) {
        link = &(*link)->next;
    }
    return link;
}

call_t** call_find_id(calls_t* calls, int32_t id) {
    call_t** link = &calls->first;
    while (*link != nullptr && (*link)->id != id) {
        link = &(*link)->next;
    }
    return link;
}

void call_unlink(call_t** link) {
    call_t* const call = *link;
    *link = call->next;
    free(call);
}

bool is_abandoned(const call_t* call) {
    return call->audience.waiter == nullptr && call->audience.on_answer == nullptr;
}

// Tells a waiter; a callback's turn comes later, as the outcome.
outcome_t audience_tell(const audience_t& audience, int32_t code, text_ptr answer) {
    outcome_t outcome;
    if (audience.waiter != nullptr) {
        audience.waiter->done = true;
        audience.waiter->code = code;
        audience.waiter->answer = std::move(answer);
    } else if (audience.on_answer != nullptr) {
        outcome = outcome_t{audience.on_answer, audience.arg, code, std::move(answer)};
    }
    return outcome;
}

outcome_t call_finish(call_t** link, int32_t code, text_ptr answer) {
    const audience_t audience = (*link)->audience;
    call_unlink(link);
    return audience_tell(audience, code, std::move(answer));
}

outcome_t call_finish_with(call_t** link, text_ptr answer) {
    if (answer == nullptr) {
        return call_finish(link, CLOUD_SVR_E_RESOURCE, nullptr);
    }
    if (strcmp(answer.get(), kTimeOutAnswer) == 0) {
        return call_finish(link, CLOUD_SVR_E_TIMEOUT, nullptr);
    }
    return call_finish(link, 0, std::move(answer));
}

int32_t calls_without_id(const calls_t* calls) {
    int32_t count = 0;
    for (const call_t* call = calls->first; call != nullptr; call = call->next) {
        count += call->is_for_cloud && call->id == 0 ? 1 : 0;
    }
    return count;
}

// No more answers can be early than calls lack their id: frees the oldest beyond that.
void early_trim(calls_t* calls) {
    int32_t room = calls_without_id(calls);
    early_t** link = &calls->early;
    while (*link != nullptr && room > 0) {
        link = &(*link)->next;
        --room;
    }
    early_t* early = *link;
    *link = nullptr;
    while (early != nullptr) {
        early_t* const next = early->next;
        free(early->answer);
        free(early);
        early = next;
    }
}

void early_add(calls_t* calls, int32_t id, const char* answer) {
    early_t* const early = static_cast<early_t*>(malloc(sizeof(early_t)));
    if (early == nullptr) {
        return;
    }
    *early = early_t{calls->early, id, string_dup(answer)};
    calls->early = early;
    early_trim(calls);
}

bool early_take(calls_t* calls, int32_t id, text_ptr* answer) {
    early_t** link = &calls->early;
    while (*link != nullptr && (*link)->id != id) {
        link = &(*link)->next;
    }
    early_t* const early = *link;
    if (early == nullptr) {
        return false;
    }
    *link = early->next;
    answer->reset(early->answer);
    free(early);
    return true;
}

outcome_t id_learn(calls_t* calls, int32_t inner_id, int32_t id) {
    if (id <= 0) {
        // The daemon had to connect anew and then left the request unsent.
        return call_finish(call_find(calls, inner_id), CLOUD_SVR_E_NO_CONNECTION, nullptr);
    }
    call_t** const former = call_find_id(calls, id);
    if (*former != nullptr && is_abandoned(*former)) {
        // The id has been given anew, so the answer that belonged to it is not to come any more.
        call_unlink(former);
    }
    call_t** const link = call_find(calls, inner_id);
    text_ptr answer;
    if (early_take(calls, id, &answer)) {
        return call_finish_with(link, std::move(answer));
    }
    (*link)->id = id;
    return outcome_t{};
}

void abandoned_trim(calls_t* calls) {
    int32_t count = 0;
    call_t** oldest = nullptr;
    for (call_t** link = &calls->first; *link != nullptr; link = &(*link)->next) {
        if (is_abandoned(*link)) {
            oldest = oldest == nullptr ? link : oldest;
            ++count;
        }
    }
    if (count > CALLS_ABANDONED_LIMIT) {
        call_unlink(oldest);
    }
}

// The call with a callback whose time ends first.
call_t* call_next_due(const calls_t* calls) {
    call_t* due = nullptr;
    for (call_t* call = calls->first; call != nullptr; call = call->next) {
        if (call->audience.on_answer != nullptr &&
            (due == nullptr || deadline_left(call->deadline) < deadline_left(due->deadline))) {
            due = call;
        }
    }
    return due;
}

}  // namespace

int32_t calls_add(calls_t* calls, bool is_for_cloud, const deadline_t& deadline,
                  const audience_t& audience) {
    call_t* const call = static_cast<call_t*>(malloc(sizeof(call_t)));
    if (call == nullptr) {
        return CLOUD_SVR_E_RESOURCE;
    }
    calls->last_inner_id = calls->last_inner_id == INT32_MAX ? 1 : calls->last_inner_id + 1;
    *call = call_t{nullptr, calls->last_inner_id, 0, is_for_cloud, deadline, audience};
    call_t** end = &calls->first;
    while (*end != nullptr) {
        end = &(*end)->next;
    }
    *end = call;
    return call->inner_id;
}

bool calls_remove(calls_t* calls, int32_t inner_id) {
    call_t** const link = call_find(calls, inner_id);
    if (*link == nullptr) {
        return false;
    }
    const bool untold = !is_abandoned(*link);
    call_unlink(link);
    early_trim(calls);
    return untold;
}

void calls_abandon(calls_t* calls, int32_t inner_id) {
    call_t** const link = call_find(calls, inner_id);
    if (*link == nullptr) {
        return;
    }
    if (!(*link)->is_for_cloud) {
        call_unlink(link);
        return;
    }
    (*link)->audience = audience_t{};
    abandoned_trim(calls);
}

outcome_t calls_answer(calls_t* calls, int32_t inner_id, int32_t code, int32_t id) {
    call_t** const link = call_find(calls, inner_id);
    if (*link == nullptr) {
        return outcome_t{};
    }
    outcome_t outcome = code != 0 || !(*link)->is_for_cloud ? call_finish(link, code, nullptr)
                                                            : id_learn(calls, inner_id, id);
    early_trim(calls);
    return outcome;
}

outcome_t calls_cloud_answer(calls_t* calls, int32_t id, const char* answer) {
    if (id <= 0) {
        return outcome_t{};
    }
    call_t** const link = call_find_id(calls, id);
    if (*link == nullptr) {
        early_add(calls, id, answer);
        return outcome_t{};
    }
    return call_finish_with(link, text_ptr(string_dup(answer)));
}

bool calls_take_overdue(calls_t* calls, outcome_t* outcome) {
    call_t* const call = call_next_due(calls);
    if (call == nullptr || deadline_left(call->deadline) > 0) {
        return false;
    }
    *outcome = audience_tell(call->audience, CLOUD_SVR_E_TIMEOUT, nullptr);
    calls_abandon(calls, call->inner_id);
    return true;
}

bool calls_take_any(calls_t* calls, int32_t code, outcome_t* outcome) {
    if (calls->first == nullptr) {
        return false;
    }
    *outcome = call_finish(&calls->first, code, nullptr);
    early_trim(calls);
    return true;
}

void calls_end_waits(calls_t* calls, int32_t code) {
    call_t** link = &calls->first;
    while (*link != nullptr) {
        if ((*link)->audience.waiter != nullptr) {
            (void)call_finish(link, code, nullptr);
        } else {
            link = &(*link)->next;
        }
    }
}

int32_t calls_left(const calls_t* calls) {
    const call_t* const call = call_next_due(calls);
    return call == nullptr ? INT32_MAX : deadline_slice(call->deadline, INT32_MAX);
}
