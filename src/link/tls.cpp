#include "link/tls.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include "cloud_svr_codes.h"
#include "link/fd_wait.h"
#include "link/tls_verify.h"
#include "util/log.h"

namespace {

bool is_wanted(const void* arg) {
    return !static_cast<const std::atomic<bool>*>(arg)->load(std::memory_order_relaxed);
}

int32_t connect_failed(int result) {
    LOG_ERROR("fail to connect the server, result=%d, error=%d", result, errno);
    return CLOUD_SVR_E_NO_CONNECTION;
}

int32_t socket_open(tls_t* tls) {
    // Non-blocking from the start: a call that waits inside OpenSSL would wait with the lock held.
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        LOG_ERROR("fail to create the socket, error=%d", fd);
        return TLS_NO_SOCKET;
    }
    tls->fd = fd;
    if (fd >= FD_SETSIZE) {
        errno = EMFILE;
        return connect_failed(-1);
    }
    // A frame is one write: holding it back for an acknowledgement only delays the answer.
    const int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return 0;
}

int32_t tcp_finish(int fd, int32_t timeout_ms, const std::atomic<bool>* interrupted) {
    const int result = fd_wait(fd, POLLOUT, deadline_in(timeout_ms), is_wanted, interrupted);
    if (result < 1) {
        return connect_failed(result);
    }
    int error = 0;
    socklen_t size = sizeof(error);
    (void)getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
    if (error != 0) {
        LOG_ERROR("fail to connect the server, error=%d, %s", error, strerror(error));
        return CLOUD_SVR_E_NO_CONNECTION;
    }
    LOG_DEBUG("succeed to connect the server.");
    return 0;
}

int32_t tcp_connect(int fd, const char* host, int32_t port, int32_t timeout_ms,
                    const std::atomic<bool>* interrupted) {
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_aton(host, &address.sin_addr) == 0) {
        LOG_ERROR("fail to inet_aton");
        return CLOUD_SVR_E_RESOURCE;
    }
    const int result =
        connect(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address));
    if (result >= 0) {
        return 0;
    }
    if (errno != EINPROGRESS && errno != EINTR) {
        return connect_failed(result);
    }
    return tcp_finish(fd, timeout_ms, interrupted);
}

// The CA names of `cer_file` are all that the file is used for.
void certificate_set(SSL* ssl, const char* cer_file) {
    if (cer_file != nullptr) {
        SSL_set_client_CA_list(ssl, SSL_load_client_CA_file(cer_file));
    }
}

int32_t ssl_make(tls_t* tls, const char* cer_file, const link_options_t* options) {
    SSL_library_init();
    SSL_load_error_strings();
    tls->ctx = SSL_CTX_new(SSLv23_client_method());
    if (tls->ctx == nullptr) {
        LOG_ERROR("fail to create a new SSL_CTX");
        return CLOUD_SVR_E_RESOURCE;
    }
    // Buffers are given back while the connection is idle; a whole record is fetched by one read.
    (void)SSL_CTX_set_mode(tls->ctx, SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_read_ahead(tls->ctx, 1);
    const int32_t code = options == nullptr ? 0 : tls_verify_prepare(tls->ctx, options);
    if (code != 0) {
        return code;
    }
    tls->ssl = SSL_new(tls->ctx);
    if (tls->ssl == nullptr || (options != nullptr && !tls_verify_name_send(tls->ssl, options))) {
        LOG_ERROR("fail to create a new SSL");
        return CLOUD_SVR_E_RESOURCE;
    }
    certificate_set(tls->ssl, cer_file);
    if (SSL_set_fd(tls->ssl, tls->fd) == 0) {
        LOG_ERROR("fail to set the socket to the SSL");
        return CLOUD_SVR_E_RESOURCE;
    }
    return 0;
}

// 1 or 0 as SSL_connect gives them, -1 when it failed or its time ran out.
int ssl_shake_hands(const tls_t* tls, const std::atomic<bool>* interrupted) {
    const deadline_t deadline = deadline_in(TLS_HANDSHAKE_MS);
    for (;;) {
        ERR_clear_error();
        errno = 0;
        const int result = SSL_connect(tls->ssl);
        if (result >= 0) {
            return result;
        }
        const int error = SSL_get_error(tls->ssl, result);
        if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) {
            return result;
        }
        const short events = error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
        if (fd_wait(tls->fd, events, deadline, is_wanted, interrupted) <= 0) {
            errno = ETIMEDOUT;
            return -1;
        }
    }
}

}  // namespace

int32_t tls_open(tls_t* tls, const char* host, int32_t port, int32_t timeout_ms,
                 const char* cer_file, const link_options_t* options,
                 const std::atomic<bool>* interrupted) {
    int32_t code = socket_open(tls);
    if (code == 0) {
        code = tcp_connect(tls->fd, host, port, timeout_ms, interrupted);
    }
    if (code == 0) {
        code = ssl_make(tls, cer_file, options);
    }
    if (code != 0) {
        return code;
    }
    // A result of 0 counts as connected, too: the first write then fails and says so. It shows
    // nothing of who the server is, though.
    const int result = ssl_shake_hands(tls, interrupted);
    if (result < 0 || (result == 0 && options != nullptr && options->verify)) {
        if (options != nullptr) {
            tls_verify_failure_log(options);
        }
        LOG_ERROR("fail to connect to the SSL, result=%d, error=%d", result, errno);
        return CLOUD_SVR_E_NO_CONNECTION;
    }
    return 0;
}

void tls_close(tls_t* tls) {
    if (tls->ssl != nullptr) {
        LOG_DEBUG("shut down and free the SSL");
        ERR_clear_error();
        (void)SSL_shutdown(tls->ssl);
        SSL_free(tls->ssl);
    }
    if (tls->ctx != nullptr) {
        LOG_DEBUG("free the SSL_CTX");
        SSL_CTX_free(tls->ctx);
    }
    if (tls->fd != 0) {
        LOG_DEBUG("close the socket");
        (void)shutdown(tls->fd, SHUT_RDWR);
        close(tls->fd);
    }
    ERR_clear_error();
    *tls = tls_t{};
}
