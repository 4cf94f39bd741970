#include "ipc/ipc_socket.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include "cloud_svr_codes.h"
#include "util/clock.h"
#include "util/log.h"

namespace {

constexpr int kBacklog = 512;

// The path without its terminator, as the length handed to bind and connect counts it. False with
// errno set when it doesn't fit.
bool address_set(const char* path, struct sockaddr_un* address, socklen_t* size) {
    const size_t length = strlen(path);
    if (length >= sizeof(address->sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    memset(address, 0, sizeof(*address));
    address->sun_family = AF_UNIX;
    memcpy(address->sun_path, path, length);
    *size = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + length);
    return true;
}

// Bounds what a full backlog makes connect wait; 0: no bound.
void send_wait_set(int fd, uint32_t ms) {
    const struct timeval bound = {static_cast<time_t>(ms / 1000),
                                  static_cast<suseconds_t>(ms % 1000 * 1000)};
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof(bound));
}

int unix_socket() {
    return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

// poll through interruptions, at most until the deadline: its result.
int wait_for(int fd, short events, const deadline_t& deadline) {
    struct pollfd item = {fd, events, 0};
    int result = 0;
    do {
        result = poll(&item, 1, deadline_slice(deadline, INT32_MAX));
    } while (result < 0 && errno == EINTR);
    return result;
}

// Sends all of `frame`: its size, or -1 with errno.
ssize_t send_buffer(int fd, const char* frame, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t sent = send(fd, frame + done, size - done, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            done += static_cast<size_t>(sent);
            continue;
        }
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        const bool full = sent < 0 && errno == EAGAIN;
        if (!full || wait_for(fd, POLLOUT, deadline_in(IPC_SEND_WAIT_MS)) <= 0) {
            return -1;
        }
    }
    return static_cast<ssize_t>(done);
}

text_ptr frame_get(const char* text, size_t length) {
    text_ptr frame = ipc_frame_build(text, length);
    if (frame == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(length + kIpcHeaderSize));
    }
    return frame;
}

int32_t sent_code(int fd, const char* text, ssize_t sent) {
    if (sent < 0) {
        LOG_ERROR("fail to send buffer, error=%d", errno);
        LOG_ERROR("fail to send the message, code=%d", static_cast<int>(sent));
        return CLOUD_SVR_E_LOCAL_SEND;
    }
    LOG_INFO("IPC send to %d: %s", fd, text);
    return 0;
}

}  // namespace

int32_t ipc_socket_init_as_server(const char* path) {
    descriptor_t server(unix_socket());
    if (server.fd < 0) {
        LOG_ERROR("fail to create the unix socket, error=%d", errno);
        return CLOUD_SVR_E_LISTEN;
    }
    struct sockaddr_un address;
    socklen_t size = 0;
    if (!address_set(path, &address, &size) ||
        bind(server.fd, reinterpret_cast<struct sockaddr*>(&address), size) != 0) {
        LOG_ERROR("fail to bind the unix socket, error=%d", errno);
        return CLOUD_SVR_E_LISTEN;
    }
    if (listen(server.fd, kBacklog) != 0) {
        LOG_ERROR("fail to listen to the unix socket, error=%d", errno);
        return CLOUD_SVR_E_LISTEN;
    }
    return server.release();
}

int32_t ipc_socket_init_as_client(const char* path, uint32_t wait_ms) {
    descriptor_t client(unix_socket());
    if (client.fd < 0) {
        LOG_ERROR("fail to create the unix socket, error=%d", errno);
        return CLOUD_SVR_E_RESOURCE;
    }
    send_wait_set(client.fd, wait_ms == 0 ? 1 : wait_ms);
    struct sockaddr_un address;
    socklen_t size = 0;
    if (!address_set(path, &address, &size) ||
        connect(client.fd, reinterpret_cast<struct sockaddr*>(&address), size) != 0) {
        LOG_ERROR("fail to connect the unix socket, error=%d", errno);
        return CLOUD_SVR_E_LOCAL_SEND;
    }
    send_wait_set(client.fd, 0);
    return client.release();
}

int32_t ipc_socket_send(int fd, const char* text) {
    const size_t length = strlen(text);
    const text_ptr frame = frame_get(text, length);
    if (frame == nullptr) {
        return CLOUD_SVR_E_RESOURCE;
    }
    return sent_code(fd, text, send_buffer(fd, frame.get(), length + kIpcHeaderSize));
}

int32_t ipc_socket_post(int fd, ipc_outbox_t* outbox, const char* text) {
    const size_t length = strlen(text);
    const text_ptr frame = frame_get(text, length);
    if (frame == nullptr) {
        return CLOUD_SVR_E_RESOURCE;
    }
    return sent_code(fd, text, ipc_outbox_send(outbox, fd, frame.get(), length + kIpcHeaderSize));
}

int32_t ipc_socket_read(ipc_reader_t* reader, int fd, text_ptr* text) {
    const int32_t code = ipc_reader_step(reader, fd, text);
    if (code == 0) {
        LOG_INFO("IPC receive from %d: %s", fd, text->get());
    }
    return code;
}

int32_t ipc_socket_recv(int fd, text_ptr* text) {
    ipc_reader_t reader;
    for (;;) {
        const int32_t code = ipc_socket_read(&reader, fd, text);
        if (code != IPC_READER_MORE) {
            return code;
        }
        // Whether it failed, timed out or is readable, the next step finds out.
        struct pollfd item = {fd, POLLIN, 0};
        (void)poll(&item, 1, ipc_reader_left(&reader));
    }
}

int32_t ipc_socket_recv_timed(int fd, int32_t timeout_ms, text_ptr* text) {
    const deadline_t deadline = deadline_in(timeout_ms);
    const int result = wait_for(fd, POLLIN, deadline);
    if (result < 0) {
        LOG_ERROR("fail to select, error=%d", result);
        return CLOUD_SVR_E_RESOURCE;
    }
    if (result > 0) {
        return ipc_socket_recv(fd, text);
    }
    if (deadline_left(deadline) > 0) {
        LOG_WARN("select time out");
        return CLOUD_SVR_E_TIMEOUT;
    }
    return CLOUD_SVR_E_NOTHING;
}
