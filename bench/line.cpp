#include "line.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <openssl/err.h>
#include <openssl/ssl.h>

namespace {

constexpr std::size_t buffer_size = 64 * 1024;

SSL_CTX* context() {
    static SSL_CTX* const made = SSL_CTX_new(TLS_client_method());
    return made;
}

int connected(int fd, const sockaddr* address, socklen_t size) {
    if (fd >= 0 && connect(fd, address, size) == 0) {
        return fd;
    }
    if (fd >= 0) {
        close(fd);
    }
    return -1;
}

int open_unix(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return connected(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

int open_tcp(const std::string& port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(port.c_str())));
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return connected(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

bool shake_hands(line_t* line) {
    line->ssl = SSL_new(context());
    ERR_clear_error();
    return line->ssl != nullptr && SSL_set_fd(line->ssl, line->fd) == 1 &&
           SSL_connect(line->ssl) == 1;
}

bool may_wait(const line_t& line, long result) {
    if (line.ssl == nullptr) {
        return result < 0 && (errno == EAGAIN || errno == EINTR);
    }
    const int error = SSL_get_error(line.ssl, static_cast<int>(result));
    return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
}

}  // namespace

line_t::line_t(line_t&& other) noexcept
    : fd(std::exchange(other.fd, -1)), ssl(std::exchange(other.ssl, nullptr)) {}

line_t& line_t::operator=(line_t&& other) noexcept {
    std::swap(fd, other.fd);
    std::swap(ssl, other.ssl);
    return *this;
}

line_t::~line_t() {
    SSL_free(ssl);
    if (fd >= 0) {
        close(fd);
    }
}

line_t line_open(const std::string& address) {
    line_t line;
    if (address.empty() || address[0] == '/') {
        line.fd = open_unix(address);
        return line;
    }
    line.fd = open_tcp(address.substr(4));
    if (line.fd >= 0 && address.compare(0, 4, "tls:") == 0 && !shake_hands(&line)) {
        return line_t();
    }
    return line;
}

void line_make_nonblocking(const line_t& line) {
    fcntl(line.fd, F_SETFL, fcntl(line.fd, F_GETFL) | O_NONBLOCK);
}

bool line_send(const line_t& line, std::string_view bytes) {
    while (!bytes.empty()) {
        if (line.ssl != nullptr) {
            ERR_clear_error();
        }
        const long sent = line.ssl != nullptr
                              ? SSL_write(line.ssl, bytes.data(), static_cast<int>(bytes.size()))
                              : send(line.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        } else if (may_wait(line, sent)) {
            pollfd item = {line.fd, POLLOUT, 0};
            poll(&item, 1, -1);
        } else {
            return false;
        }
    }
    return true;
}

bool line_receive(const line_t& line, std::string* in) {
    static thread_local char buffer[buffer_size];
    if (line.ssl != nullptr) {
        ERR_clear_error();
    }
    const long got = line.ssl != nullptr ? SSL_read(line.ssl, buffer, sizeof buffer)
                                         : recv(line.fd, buffer, sizeof buffer, 0);
    if (got <= 0) {
        return may_wait(line, got);
    }
    in->append(buffer, static_cast<std::size_t>(got));
    return true;
}

bool line_wait(const line_t& line, int timeout_ms) {
    if (line.ssl != nullptr && SSL_has_pending(line.ssl) != 0) {
        return true;
    }
    pollfd item = {line.fd, POLLIN, 0};
    return poll(&item, 1, timeout_ms) > 0;
}
