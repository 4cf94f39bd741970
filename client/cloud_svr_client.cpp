// The interface, and the turns in which threads read: one at a time reads for all, the others
// sleep until it has something for them or stops reading.
#include "cloud_svr_client.h"

#include <errno.h>
#include <sys/socket.h>

#include "connection.h"
#include "envelope.h"

namespace {

constexpr int32_t kLongestWaitMs = 10 * 60 * 1000;
constexpr int32_t kProcessAtOnce = 64;

int32_t lesser(int32_t a, int32_t b) {
    return a < b ? a : b;
}

int32_t milliseconds_left(const deadline_t& deadline) {
    return deadline_slice(deadline, INT32_MAX);
}

// True once the caller may read; it then has to call reading_end. False after another thread has
// read for it or the time is over, or when there is nothing to wait for: `code` tells.
bool reading_begin(cloud_svr_client_t* client, const waiter_t* waiter, int32_t wait_ms,
                   int32_t* code) {
    const mutex_lock_t held(client->lock);
    *code = client->lost;
    if (client->lost != 0 || (waiter != nullptr && waiter->done)) {
        return false;
    }
    if (client->is_reading) {
        client->changed.wait(client->lock, static_cast<uint32_t>(wait_ms));
        return false;
    }
    client->is_reading = true;
    return true;
}

void reading_end(cloud_svr_client_t* client, int32_t code, json_ptr message, task_t* task) {
    const mutex_lock_t held(client->lock);
    client->is_reading = false;
    if (code == 0) {
        message_take_unsafe(client, std::move(message), task);
    } else if (code != IPC_READER_MORE) {
        client->lost = code;
        calls_end_waits(&client->calls, code);
        (void)shutdown(client->socket.fd, SHUT_RDWR);
    }
    client->changed.wake_all();
}

// One message at most, waiting for it at most that long: 1 for a message, 0 for none, or why the
// connection is gone. `waiter`, if any, is whom the caller waits for.
int32_t turn(cloud_svr_client_t* client, const waiter_t* waiter, int32_t wait_ms) {
    int32_t code = 0;
    if (!reading_begin(client, waiter, wait_ms, &code)) {
        return code;
    }
    text_ptr text;
    code = connection_read(client, wait_ms, &text);
    json_ptr message(code == 0 ? cJSON_Parse(text.get()) : nullptr);
    task_t task;
    reading_end(client, code, std::move(message), &task);
    task_run(client, task);
    if (code == IPC_READER_MORE) {
        return 0;
    }
    return code == 0 ? 1 : code;
}

bool overdue_take(cloud_svr_client_t* client, outcome_t* outcome) {
    const mutex_lock_t held(client->lock);
    return client->lost != 0 ? calls_take_any(&client->calls, client->lost, outcome)
                             : calls_take_overdue(&client->calls, outcome);
}

// Tells the callbacks whose time is over, or all of them when the connection is lost: how many.
int32_t overdue_run(cloud_svr_client_t* client) {
    int32_t count = 0;
    for (outcome_t outcome; overdue_take(client, &outcome); outcome = outcome_t{}) {
        if (outcome.on_answer != nullptr) {
            outcome.on_answer(outcome.arg, outcome.code, nullptr);
            ++count;
        }
    }
    return count;
}

int32_t overdue_left(cloud_svr_client_t* client) {
    const mutex_lock_t held(client->lock);
    return calls_left(&client->calls);
}

// Adds a call; its inner id, or why there can't be one.
int32_t call_add(cloud_svr_client_t* client, bool is_for_cloud, const deadline_t& deadline,
                 const audience_t& audience) {
    const mutex_lock_t held(client->lock);
    return client->lost != 0 ? client->lost
                             : calls_add(&client->calls, is_for_cloud, deadline, audience);
}

// 0 when the call goes on or was told its end meanwhile, otherwise `code`, the call being gone.
int32_t call_sent(cloud_svr_client_t* client, int32_t inner_id, int32_t code) {
    if (code == 0) {
        return 0;
    }
    const mutex_lock_t held(client->lock);
    return calls_remove(&client->calls, inner_id) ? code : 0;
}

// True with `code` set when the wait is over.
bool wait_is_over(cloud_svr_client_t* client, int32_t inner_id, const waiter_t& waiter,
                  const deadline_t& deadline, int32_t* code) {
    const mutex_lock_t held(client->lock);
    if (waiter.done) {
        *code = waiter.code;
        return true;
    }
    if (deadline_left(deadline) > 0) {
        return false;
    }
    calls_abandon(&client->calls, inner_id);
    *code = CLOUD_SVR_E_TIMEOUT;
    return true;
}

int32_t call_wait(cloud_svr_client_t* client, int32_t inner_id, const waiter_t& waiter,
                  const deadline_t& deadline) {
    int32_t code = 0;
    while (!wait_is_over(client, inner_id, waiter, deadline, &code)) {
        (void)overdue_run(client);
        (void)turn(client, &waiter, lesser(milliseconds_left(deadline), overdue_left(client)));
    }
    (void)overdue_run(client);
    return code;
}

// Asks the daemon, and waits for its own answer.
int32_t daemon_ask(cloud_svr_client_t* client, const char* method, json_ptr params,
                   int32_t timeout_ms) {
    const deadline_t deadline = deadline_in(timeout_ms);
    waiter_t waiter;
    const int32_t id = call_add(client, false, deadline, audience_t{&waiter, nullptr, nullptr});
    if (id < 0) {
        return id;
    }
    const text_ptr text = envelope_request(method, id, std::move(params));
    const int32_t code = call_sent(client, id, connection_send(client, text));
    return code != 0 ? code : call_wait(client, id, waiter, deadline);
}

deadline_t request_deadline(int32_t timeout_ms) {
    return deadline_in(timeout_ms < 0 ? kLongestWaitMs : timeout_ms);
}

// Sends a request to the cloud: its inner id, or why it failed at once.
int32_t request_start(cloud_svr_client_t* client, const char* request, int32_t timeout_ms,
                      int32_t flags, const deadline_t& deadline, const audience_t& audience) {
    json_ptr params =
        envelope_device_request_params(request, timeout_ms, flags & CLOUD_SVR_CONNECT);
    if (params == nullptr) {
        return CLOUD_SVR_E_RESOURCE;
    }
    const int32_t id = call_add(client, true, deadline, audience);
    if (id < 0) {
        return id;
    }
    const text_ptr text = envelope_request("device_request", id, std::move(params));
    const int32_t code = call_sent(client, id, connection_send(client, text));
    return code != 0 ? code : id;
}

void agent_set(cloud_svr_client_t* client, const cloud_svr_agent_t* agent) {
    const mutex_lock_t held(client->lock);
    client->has_agent = agent != nullptr;
    client->agent = agent != nullptr ? *agent : cloud_svr_agent_t{};
}

// Whether the daemon may take the client for the agent after that result of registering.
bool is_registered(int32_t code) {
    return code == 0 || code == CLOUD_SVR_E_NO_CONNECTION || code == CLOUD_SVR_E_TIMEOUT;
}

}  // namespace

int cloud_svr_client_connect(cloud_svr_client_t** client, const char* path, int timeout_ms) {
    if (client == nullptr) {
        return CLOUD_SVR_E_ARGUMENT;
    }
    *client = nullptr;
    const deadline_t deadline = deadline_in(timeout_ms);
    record_ptr<cloud_svr_client_t> made = record_new<cloud_svr_client_t>();
    if (made == nullptr) {
        return CLOUD_SVR_E_RESOURCE;
    }
    const int32_t fd = ipc_socket_init_as_client(path == nullptr ? CLOUD_SVR_CLIENT_PATH : path,
                                                 deadline_left(deadline));
    if (fd < 0) {
        // A daemon that accepts nobody is there, but late.
        const bool is_late = fd == CLOUD_SVR_E_LOCAL_SEND && errno == EAGAIN;
        return is_late ? CLOUD_SVR_E_TIMEOUT : fd;
    }
    made->socket.fd = fd;
    const int32_t code = connection_greet(made.get(), deadline);
    if (code == 0) {
        *client = made.release();
    }
    return code;
}

void cloud_svr_client_shutdown(cloud_svr_client_t* client) {
    if (client != nullptr) {
        (void)shutdown(client->socket.fd, SHUT_RDWR);
    }
}

void cloud_svr_client_close(cloud_svr_client_t* client) {
    if (client == nullptr) {
        return;
    }
    {
        const mutex_lock_t held(client->lock);
        client->lost = CLOUD_SVR_E_LOCAL_CLOSED;
    }
    (void)overdue_run(client);
    record_ptr<cloud_svr_client_t>(client).reset();
}

int cloud_svr_client_request(cloud_svr_client_t* client, const char* request, int timeout_ms,
                             int flags, char** answer) {
    if (client == nullptr || request == nullptr || answer == nullptr) {
        return CLOUD_SVR_E_ARGUMENT;
    }
    *answer = nullptr;
    const deadline_t deadline = request_deadline(timeout_ms);
    waiter_t waiter;
    const int32_t id = request_start(client, request, timeout_ms, flags, deadline,
                                     audience_t{&waiter, nullptr, nullptr});
    if (id < 0) {
        return id;
    }
    const int32_t code = call_wait(client, id, waiter, deadline);
    *answer = waiter.answer.release();
    return code;
}

int cloud_svr_client_send(cloud_svr_client_t* client, const char* request, int timeout_ms,
                          int flags, cloud_svr_answer_fn on_answer, void* arg) {
    if (client == nullptr || request == nullptr || on_answer == nullptr) {
        return CLOUD_SVR_E_ARGUMENT;
    }
    const int32_t id =
        request_start(client, request, timeout_ms, flags, request_deadline(timeout_ms),
                      audience_t{nullptr, on_answer, arg});
    return id < 0 ? id : 0;
}

int cloud_svr_client_fd(const cloud_svr_client_t* client) {
    return client == nullptr ? -1 : client->socket.fd;
}

int cloud_svr_client_timeout(cloud_svr_client_t* client) {
    if (client == nullptr) {
        return -1;
    }
    const int32_t left = overdue_left(client);
    return left == INT32_MAX ? -1 : left;
}

int cloud_svr_client_process(cloud_svr_client_t* client, int timeout_ms) {
    if (client == nullptr) {
        return CLOUD_SVR_E_ARGUMENT;
    }
    deadline_t deadline = deadline_in(timeout_ms);
    for (int32_t count = 0;;) {
        count += overdue_run(client);
        if (timeout_ms < 0) {
            deadline = deadline_in(kLongestWaitMs);
        }
        const int32_t wait_ms =
            count > 0 ? 0 : lesser(milliseconds_left(deadline), overdue_left(client));
        const int32_t code = turn(client, nullptr, wait_ms);
        if (code < 0) {
            (void)overdue_run(client);
            return code;
        }
        count += code;
        const bool is_over = count > 0 || deadline_left(deadline) == 0;
        if ((code == 0 && is_over) || count >= kProcessAtOnce) {
            return count;
        }
    }
}

int cloud_svr_client_register(cloud_svr_client_t* client, const cloud_svr_agent_t* agent,
                              int timeout_ms) {
    if (client == nullptr || agent == nullptr || agent->on_request == nullptr) {
        return CLOUD_SVR_E_ARGUMENT;
    }
    json_ptr params = envelope_register_params(agent->on_hello_request != nullptr);
    if (params == nullptr) {
        return CLOUD_SVR_E_RESOURCE;
    }
    // From before the answer on: the daemon asks while it connects.
    agent_set(client, agent);
    const int32_t code = daemon_ask(client, "register_callback", std::move(params), timeout_ms);
    if (!is_registered(code)) {
        agent_set(client, nullptr);
    }
    return code;
}

int cloud_svr_client_unregister(cloud_svr_client_t* client, int timeout_ms) {
    if (client == nullptr) {
        return CLOUD_SVR_E_ARGUMENT;
    }
    const int32_t code = daemon_ask(client, "unregister_callback", nullptr, timeout_ms);
    if (code == 0) {
        agent_set(client, nullptr);
    }
    return code;
}

int cloud_svr_client_reconnect(cloud_svr_client_t* client, int timeout_ms) {
    return client == nullptr ? CLOUD_SVR_E_ARGUMENT
                             : daemon_ask(client, "reconnect_cloud", nullptr, timeout_ms);
}
