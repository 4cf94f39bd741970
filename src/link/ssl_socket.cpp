#include "link/ssl_socket.h"

#include <sys/socket.h>

#include "cloud_svr_codes.h"
#include "link/keepalive.h"
#include "util/log.h"
#include "util/memory.h"

namespace {

struct ssl_socket_deleter_t {
    void operator()(ssl_socket_t* socket) const { ssl_socket_destroy(socket); }
};

int32_t disconnect_unsafe(ssl_socket_t* socket) REQUIRES(socket->lock) {
    if (socket->connected == 0) {
        LOG_WARN("the ssl_socket_t is already disconnected");
        return 0;
    }
    socket->connected = 0;
    ++socket->connection;
    tls_close(&socket->tls);
    if (socket->options == nullptr) {
        // The record is cleared as a whole; the certificate file's name goes with it, unfreed.
        socket->cer_file = nullptr;
    }
    return 0;
}

// Marks an attempt, whose waits then go without the lock; its number. What a TLS close by the peer
// left in the record is forgotten here.
uint32_t connect_unsafe(ssl_socket_t* socket) REQUIRES(socket->lock) {
    socket->connected = 1;
    socket->tls = tls_t{};
    return ++socket->connection;
}

// Makes the opened connection the object's, or cleans up after a failure.
int32_t attempt_end(ssl_socket_t* socket, uint32_t attempt, tls_t* tls, int32_t code) {
    const mutex_lock_t held(socket->lock);
    if (socket->connection != attempt) {
        tls_close(tls);  // a disconnect came meanwhile
        return CLOUD_SVR_E_NO_CONNECTION;
    }
    socket->tls = *tls;
    if (code == TLS_NO_SOCKET) {
        return CLOUD_SVR_E_NO_CONNECTION;
    }
    if (code != 0) {
        (void)disconnect_unsafe(socket);
    }
    return code;
}

int32_t connect_once(ssl_socket_t* socket, const char* host, int32_t port, int32_t timeout_ms) {
    uint32_t attempt = 0;
    const char* cer_file = nullptr;
    {
        const mutex_lock_t held(socket->lock);
        if (socket->connected != 0) {
            LOG_WARN("the ssl_socket_t is already connected");
            return 0;
        }
        attempt = connect_unsafe(socket);
        cer_file = socket->cer_file;  // never freed before the object is
    }
    tls_t tls;
    const int32_t code =
        tls_open(&tls, host, port, timeout_ms, cer_file, socket->options, &socket->interrupted);
    if (code == 0 && link_recovers(socket->options)) {
        keepalive_set(tls.fd);
    }
    return attempt_end(socket, attempt, &tls, code);
}

}  // namespace

ssl_socket_t* ssl_socket_init(const char* cer_file, const link_options_t* options) {
    if (cer_file == nullptr) {
        LOG_ERROR("the certificate file is NULL");
        return nullptr;
    }
    LOG_DEBUG("begin to initialize the ssl_socket_t...");
    record_ptr<ssl_socket_t> socket = record_new<ssl_socket_t>();
    if (socket == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(sizeof(ssl_socket_t)));
        return nullptr;
    }
    char* const copy = string_dup(cer_file);
    if (copy == nullptr) {
        LOG_ERROR("fail to copy string");
        return nullptr;
    }
    socket->options = options;
    const mutex_lock_t held(socket->lock);
    socket->cer_file = copy;
    LOG_DEBUG("end to initialize the ssl_socket_t...");
    return socket.release();
}

int32_t ssl_socket_connect(ssl_socket_t* socket, const char* host, int32_t port,
                           int32_t timeout_ms) {
    if (socket == nullptr || host == nullptr) {
        LOG_ERROR("the ssl_socket_t or host is NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    LOG_DEBUG("begin to connect the ssl_socket_t...");
    if (port < 1 || port > 65535) {
        LOG_ERROR("the port is out of range (0, 65536)");
        return CLOUD_SVR_E_RANGE;
    }
    const int32_t code = connect_once(socket, host, port, timeout_ms);
    if (code != 0) {
        LOG_ERROR("fail to connect the ssl_socket_t, code=%d, host=%s, port=%d", code, host, port);
        return code;
    }
    LOG_DEBUG("end to connect the ssl_socket_t...");
    return 0;
}

int32_t ssl_socket_disconnect(ssl_socket_t* socket) {
    if (socket == nullptr) {
        LOG_ERROR("the ssl_socket_t is NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    LOG_DEBUG("begin to disconnect the ssl_socket_t...");
    int32_t code = 0;
    {
        const mutex_lock_t held(socket->lock);
        code = disconnect_unsafe(socket);
    }
    if (code != 0) {
        LOG_ERROR("fail to disconnect the ssl_socket_t, code=%d", code);
        return code;
    }
    LOG_DEBUG("end to disconnect the ssl_socket_t...");
    return 0;
}

void ssl_socket_destroy(ssl_socket_t* socket) {
    if (socket == nullptr) {
        LOG_WARN("the ssl_socket_t is NULL");
        return;
    }
    LOG_DEBUG("begin to destroy the ssl_socket_t...");
    if (socket->connected != 0) {
        LOG_WARN("the ssl_socket_t is still connected");
        (void)ssl_socket_disconnect(socket);
    }
    const record_ptr<ssl_socket_t> owned(socket);
    const mutex_lock_t held(socket->lock);
    free(socket->cer_file);
    LOG_DEBUG("end to destroy the ssl_socket_t...");
}

int32_t ssl_socket_get_status(ssl_socket_t* socket) {
    if (socket == nullptr) {
        LOG_ERROR("the ssl_socket_t is NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    return socket->connected;
}

void ssl_socket_interrupt(ssl_socket_t* socket) {
    socket->interrupted = true;
    const mutex_lock_t held(socket->lock);
    if (socket->tls.fd != 0) {
        // Ends ssl_socket_idle; the peer sees nothing of it.
        (void)shutdown(socket->tls.fd, SHUT_RD);
    }
}

uint32_t ssl_socket_get_connection(const ssl_socket_t* socket) {
    return socket->connection;
}

void ssl_socket_lose_unsafe(ssl_socket_t* socket, const char* why) {
    LOG_WARN("the connection is lost: %s", why);
    socket->lost = socket->connection.load();
    (void)disconnect_unsafe(socket);
}
