// The wire: reading and sending frames, the greeting.
#include "connection.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

namespace {

bool has_hung_up(int fd) {
    struct pollfd item = {fd, POLLIN, 0};
    return poll(&item, 1, 0) > 0 && (item.revents & POLLHUP) != 0;
}

int32_t greeting_judge(const char* text) {
    const json_ptr message(cJSON_Parse(text));
    const char* const method = json_get_string(message.get(), "inner_method");
    const cJSON* const params = json_get(message.get(), "inner_params");
    if (method == nullptr || strcmp(method, "server_notify") != 0 ||
        !cJSON_IsNumber(json_get(params, "type"))) {
        return CLOUD_SVR_E_FORMAT;
    }
    return json_get_int(params, "type") == 0 ? 0 : CLOUD_SVR_E_REFUSED;
}

}  // namespace

int32_t connection_read(cloud_svr_client_t* client, int32_t wait_ms, text_ptr* text) {
    const deadline_t deadline = deadline_in(wait_ms);
    do {
        struct pollfd item = {client->socket.fd, POLLIN, 0};
        const int result = poll(&item, 1, deadline_slice(deadline, INT32_MAX));
        if (result < 0 && errno != EINTR) {
            return CLOUD_SVR_E_RESOURCE;
        }
        // The reader is asked only when there are bytes: it would count a pause as an end.
        if (result > 0) {
            const int32_t code = ipc_socket_read(&client->reader, client->socket.fd, text);
            if (code != IPC_READER_MORE) {
                return code;
            }
        }
    } while (deadline_left(deadline) > 0);
    return IPC_READER_MORE;
}

int32_t connection_send(cloud_svr_client_t* client, const text_ptr& text) {
    if (text == nullptr) {
        return CLOUD_SVR_E_RESOURCE;
    }
    const mutex_lock_t held(client->send_lock);
    const int32_t code = ipc_socket_send(client->socket.fd, text.get());
    if (code != CLOUD_SVR_E_LOCAL_SEND) {
        return code;
    }
    const bool closed = has_hung_up(client->socket.fd);
    (void)shutdown(client->socket.fd, SHUT_RDWR);
    return closed ? CLOUD_SVR_E_LOCAL_CLOSED : code;
}

int32_t connection_greet(cloud_svr_client_t* client, const deadline_t& deadline) {
    text_ptr text;
    const int32_t code = connection_read(client, deadline_slice(deadline, INT32_MAX), &text);
    if (code == IPC_READER_MORE) {
        return CLOUD_SVR_E_TIMEOUT;
    }
    return code != 0 ? code : greeting_judge(text.get());
}
