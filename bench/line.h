// One connection of the benchmark: a Unix socket, TCP, or TLS over TCP.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

typedef struct ssl_st SSL;

// Closes on destruction; moved, never copied.
struct line_t {
    int fd = -1;
    SSL* ssl = nullptr;

    line_t() = default;
    line_t(line_t&& other) noexcept;
    line_t& operator=(line_t&& other) noexcept;
    ~line_t();
};

// Connects to "/path", "tcp:PORT" or "tls:PORT", the latter two on 127.0.0.1; blocking, and with
// TLS no certificate is verified. fd is -1 when that failed.
line_t line_open(const std::string& address);

void line_make_nonblocking(const line_t& line);

// Sends all of it, waiting if need be. False when the peer is gone.
bool line_send(const line_t& line, std::string_view bytes);

// Appends what there is, up to one buffer, to `in`. False when the peer is gone; with a
// non-blocking line, true without bytes when there is none.
bool line_receive(const line_t& line, std::string* in);

// Whether bytes come within `timeout_ms`, negative: without end.
bool line_wait(const line_t& line, int timeout_ms);
