// The frames of ssl_socket.h: writing one, waiting for one, reading one.
#include <errno.h>
#include <poll.h>
#include <string.h>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include "cloud_svr_codes.h"
#include "link/fd_wait.h"
#include "link/ssl_socket.h"
#include "util/log.h"
#include "util/memory.h"

namespace {

constexpr size_t kHeaderSize = 4;
constexpr uint16_t kMagic = 0xA1B2;
constexpr int kIdleMs = 1000;

// The readable descriptor held no byte of a frame (a session ticket, say): go on waiting.
constexpr int32_t kNoFrameYet = 1;

// One connection as a thread that uses it knows it.
struct link_t {
    ssl_socket_t* socket;
    uint32_t connection;
};

// The result of one OpenSSL call; what SSL_get_error says of it; the descriptor to wait on.
struct io_result_t {
    int result;
    int error;
    int fd;
};

bool link_is_current(const void* arg) {
    const auto* const link = static_cast<const link_t*>(arg);
    return link->socket->connection == link->connection && !link->socket->interrupted;
}

bool wants_wait(int error) {
    return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
}

// Why the last OpenSSL call on this thread has failed for good.
const char* failure_text(int error) {
    if (error == SSL_ERROR_ZERO_RETURN) {
        return "closed by the cloud";
    }
    const unsigned long code = ERR_peek_error();
    const char* const reason = code == 0 ? nullptr : ERR_reason_error_string(code);
    if (reason != nullptr) {
        return reason;
    }
    return errno == 0 ? "closed by the cloud without close_notify" : strerror(errno);
}

void chk_result(ssl_socket_t* socket, int result, int error) REQUIRES(socket->lock) {
    if (link_recovers(socket->options)) {
        if (result <= 0 && !wants_wait(error)) {
            ssl_socket_lose_unsafe(socket, failure_text(error));
        }
    } else if (result == 0 && error == SSL_ERROR_ZERO_RETURN) {
        socket->connected = 0;
        LOG_WARN("the ssl_socket_t is out of connection");
    }
}

// Whether OpenSSL may be called for that connection.
bool link_is_up_unsafe(const link_t& link) REQUIRES(link.socket->lock) {
    return link.socket->connected != 0 && link.socket->tls.ssl != nullptr && link_is_current(&link);
}

// Makes one OpenSSL call, given the SSL, under the lock; a result of 0 without a connection.
template <typename call_t>
io_result_t io_once(const link_t& link, const call_t& call) {
    const mutex_lock_t held(link.socket->lock);
    if (!link_is_up_unsafe(link)) {
        return io_result_t{0, SSL_ERROR_NONE, 0};
    }
    const tls_t tls = link.socket->tls;
    ERR_clear_error();
    errno = 0;
    const int result = call(tls.ssl);
    const int error = SSL_get_error(tls.ssl, result);
    chk_result(link.socket, result, error);
    return io_result_t{result, error, tls.fd};
}

io_result_t write_once(const link_t& link, const char* bytes, size_t size) {
    return io_once(link, [=](SSL* ssl) { return SSL_write(ssl, bytes, static_cast<int>(size)); });
}

io_result_t read_once(const link_t& link, char* buffer, size_t size) {
    return io_once(link, [=](SSL* ssl) { return SSL_read(ssl, buffer, static_cast<int>(size)); });
}

// The connection can't carry another frame, which OpenSSL doesn't know. Without `recover` nobody
// acts on it before a heartbeat fails.
void link_lose(const link_t& link, const char* why) {
    const mutex_lock_t held(link.socket->lock);
    if (link_recovers(link.socket->options) && link_is_up_unsafe(link)) {
        ssl_socket_lose_unsafe(link.socket, why);
    }
}

short wanted_events(const io_result_t& io) {
    return io.error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
}

// Repeats a call until it has a result, waiting in between: that result, -1 when it stalls.
template <typename once_t>
int io_through(const link_t& link, const once_t& once) {
    const deadline_t deadline = deadline_in(SSL_SOCKET_STALL_MS);
    for (;;) {
        const io_result_t io = once();
        if (!wants_wait(io.error)) {
            return io.result;
        }
        if (fd_wait(io.fd, wanted_events(io), deadline, link_is_current, &link) <= 0) {
            link_lose(link, "a frame has stalled");
            return -1;
        }
    }
}

// SSL_write's result for the whole frame; 0 when there is no connection. OpenSSL wants a write
// that has to wait repeated with the same bytes, so the turn is kept until it is through.
int send_buffer(ssl_socket_t* socket, const char* frame, size_t size) REQUIRES(socket->write_turn) {
    const link_t link = {socket, socket->connection};
    if (socket->connected == 0) {
        LOG_WARN("the ssl_socket_t is out of connection");
        return 0;
    }
    return io_through(link, [&] { return write_once(link, frame, size); });
}

text_ptr frame_build(const char* text, size_t length) {
    text_ptr frame(static_cast<char*>(malloc(length + kHeaderSize)));
    if (frame == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(length + kHeaderSize));
        return frame;
    }
    auto* const header = reinterpret_cast<unsigned char*>(frame.get());
    header[0] = kMagic >> 8;
    header[1] = kMagic & 0xFF;
    header[2] = static_cast<unsigned char>(length >> 8);
    header[3] = static_cast<unsigned char>(length & 0xFF);
    memcpy(frame.get() + kHeaderSize, text, length);
    return frame;
}

int32_t send_failed(const ssl_socket_t* socket, int result) {
    if (result < 0) {
        LOG_ERROR("fail to ssl_socket_send, error=%d", result);
    }
    if (socket->connected == 0 || result == 0) {
        LOG_WARN("the ssl_socket_t is out of connection");
    }
    LOG_ERROR("fail to send the json object, error=%d", CLOUD_SVR_E_NO_CONNECTION);
    return CLOUD_SVR_E_NO_CONNECTION;
}

void sent_log(const char* text) {
    if (text == nullptr) {
        LOG_INFO("client send:");
    } else {
        LOG_INFO("client send: %s", text);
    }
}

int32_t send_unsafe(ssl_socket_t* socket, const char* text) REQUIRES(socket->write_turn) {
    const size_t length = strlen(text);
    if (length > SSL_SOCKET_TEXT_LIMIT) {
        LOG_ERROR("the json is too long");
        return CLOUD_SVR_E_TOO_LONG;
    }
    const text_ptr frame = frame_build(text, length);
    if (frame == nullptr) {
        return CLOUD_SVR_E_RESOURCE;
    }
    const int result = send_buffer(socket, frame.get(), length + kHeaderSize);
    if (result <= 0) {
        return send_failed(socket, result);
    }
    sent_log(text);
    return 0;
}

// One successful read of up to `size` bytes, waiting for its first one; what SSL_read gave.
int rcv_buffer(const link_t& link, char* buffer, size_t size) {
    return io_through(link, [&] { return read_once(link, buffer, size); });
}

uint16_t big_endian(const char* bytes) {
    const auto* const b = reinterpret_cast<const unsigned char*>(bytes);
    return static_cast<uint16_t>(b[0] << 8 | b[1]);
}

int32_t parse_body(const char* body, json_ptr* json) {
    json->reset(cJSON_Parse(body));
    if (*json == nullptr) {
        LOG_ERROR("fail to parse the json");
        return CLOUD_SVR_E_FORMAT;
    }
    const text_ptr text = json_print(json->get());
    if (text == nullptr) {
        LOG_INFO("client receive:");
    } else {
        LOG_INFO("client receive: %s", text.get());
    }
    return 0;
}

int32_t rcv_body(const link_t& link, size_t length, text_ptr* body) {
    body->reset(static_cast<char*>(malloc(length + 1)));
    if (*body == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(length + 1));
        return CLOUD_SVR_E_RESOURCE;
    }
    // The body must come in one read, that is in one TLS record.
    const int count = length == 0 ? 0 : rcv_buffer(link, body->get(), length);
    if (count != static_cast<int>(length)) {
        LOG_ERROR("fail to receive the json, code=%d", count);
        return CLOUD_SVR_E_INCOMPLETE;
    }
    body->get()[length] = '\0';
    return 0;
}

// Reads one frame's body; kNoFrameYet when not even the frame's first byte is there.
int32_t rcv_unsafe(const link_t& link, text_ptr* body) REQUIRES(link.socket->read_turn) {
    char field[2];
    const io_result_t magic = read_once(link, field, sizeof(field));
    if (wants_wait(magic.error)) {
        return kNoFrameYet;
    }
    if (magic.result != static_cast<int>(sizeof(field))) {
        return CLOUD_SVR_E_INCOMPLETE;
    }
    if (big_endian(field) != kMagic) {
        LOG_ERROR("the magic does not match");
        return CLOUD_SVR_E_FORMAT;
    }
    const int count = rcv_buffer(link, field, sizeof(field));
    if (count != static_cast<int>(sizeof(field))) {
        LOG_ERROR("fail to receive the length of the json, code=%d", count);
        return CLOUD_SVR_E_INCOMPLETE;
    }
    return rcv_body(link, big_endian(field), body);
}

int32_t rcv_frame(const link_t& link, json_ptr* json) {
    const mutex_lock_t turn(link.socket->read_turn);
    text_ptr body;
    const int32_t code = rcv_unsafe(link, &body);
    if (code == 0) {
        return parse_body(body.get(), json);
    }
    if (code != kNoFrameYet) {
        link_lose(link, "what has come is not a whole frame");
    }
    return code;
}

bool link_is_lost(const link_t& link) {
    return link.socket->lost == link.connection;
}

enum look_t { LOOK_GONE, LOOK_CLOSED, LOOK_DATA, LOOK_EMPTY };

// Whether the connection is there and OpenSSL already holds bytes, which no poll would tell.
look_t look(const link_t& link, int* fd) {
    const mutex_lock_t held(link.socket->lock);
    if (!link_is_current(&link) && !link_is_lost(link)) {
        return LOOK_GONE;
    }
    if (!link_is_up_unsafe(link)) {
        return LOOK_CLOSED;
    }
    const tls_t tls = link.socket->tls;
    *fd = tls.fd;
#if OPENSSL_VERSION_NUMBER >= 0x10100000L
    return SSL_has_pending(tls.ssl) != 0 ? LOOK_DATA : LOOK_EMPTY;
#else
    return SSL_pending(tls.ssl) > 0 ? LOOK_DATA : LOOK_EMPTY;
#endif
}

int32_t wait_failed(int result, const link_t& link, const deadline_t& deadline) {
    if (result < 0) {
        LOG_ERROR("fail to select, error=%d", result);
        return CLOUD_SVR_E_RESOURCE;
    }
    if (deadline_left(deadline) > 0 && link_is_current(&link)) {
        LOG_WARN("select time out");
        return CLOUD_SVR_E_TIMEOUT;
    }
    return CLOUD_SVR_E_NOTHING;
}

}  // namespace

int32_t ssl_socket_send(ssl_socket_t* socket, const cJSON* json) {
    if (socket == nullptr || json == nullptr) {
        LOG_ERROR("the ssl_socket_t or json object is NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    const text_ptr text = json_print(json);
    if (text == nullptr) {
        LOG_ERROR("the string of the json object is NULL");
        return CLOUD_SVR_E_RESOURCE;
    }
    const mutex_lock_t turn(socket->write_turn);
    return send_unsafe(socket, text.get());
}

int32_t ssl_socket_rcv(ssl_socket_t* socket, int32_t timeout_ms, json_ptr* json) {
    const uint32_t connection = socket == nullptr ? 0 : ssl_socket_get_connection(socket);
    return ssl_socket_rcv_on(socket, connection, timeout_ms, json);
}

int32_t ssl_socket_rcv_on(ssl_socket_t* socket, uint32_t connection, int32_t timeout_ms,
                          json_ptr* json) {
    if (socket == nullptr || json == nullptr) {
        LOG_ERROR("the ssl_socket_t or json object is NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    const link_t link = {socket, connection};
    const deadline_t deadline = deadline_in(timeout_ms);
    int fd = 0;
    const look_t seen = look(link, &fd);
    if (seen == LOOK_GONE || seen == LOOK_CLOSED) {
        return seen == LOOK_GONE ? CLOUD_SVR_E_NOTHING : CLOUD_SVR_E_INCOMPLETE;
    }
    bool readable = seen == LOOK_DATA;
    for (;;) {
        if (!readable) {
            const int result = fd_wait(fd, POLLIN, deadline, link_is_current, &link);
            if (result <= 0) {
                return wait_failed(result, link, deadline);
            }
        }
        const int32_t code = rcv_frame(link, json);
        if (code == CLOUD_SVR_E_INCOMPLETE && !link_is_current(&link) && !link_is_lost(link)) {
            return CLOUD_SVR_E_NOTHING;  // dropped by ourselves while it was looked at
        }
        if (code != kNoFrameYet) {
            return code;
        }
        readable = false;
    }
}

void ssl_socket_idle(ssl_socket_t* socket, uint32_t connection) {
    const link_t link = {socket, connection};
    int fd = 0;
    if (look(link, &fd) == LOOK_EMPTY) {
        // Whoever ends the connection shuts the descriptor down first, which wakes this.
        struct pollfd item = {fd, POLLIN, 0};
        (void)poll(&item, 1, kIdleMs);
    }
}
