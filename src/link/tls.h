// One TLS client connection over IPv4 TCP: opened with bounded waits, closed whole.
#pragma once

#include <stdint.h>

#include <atomic>

#include "link/link_options.h"

// OpenSSL's own records; who only hands them on needs no OpenSSL header.
typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;

// What a connection consists of; fd 0 and NULL where there is none yet.
struct tls_t {
    int32_t fd = 0;
    SSL_CTX* ctx = nullptr;
    SSL* ssl = nullptr;
};

// The whole TLS handshake takes at most that long.
constexpr int32_t TLS_HANDSHAKE_MS = 10000;

// The socket itself could not be created: unlike after every other failure there is nothing to
// clean up.
constexpr int32_t TLS_NO_SOCKET = 1;

// Sets up, before any thread exists, what OpenSSL sets up once. Where memory is out in between,
// OpenSSL crashes or is left half set up, and the process could not connect until its end: instead
// `no_memory` is called, which must end the process. To be called before any other use of OpenSSL;
// a second call changes nothing.
void tls_prepare(void (*no_memory)());

// Connects to the dotted address `host` within `timeout_ms` and shakes hands; gives up within
// 100 ms once `interrupted` is set. The server's certificate is not verified unless `options`,
// which may be NULL and outlive the connection, ask for it; `cer_file`, unless NULL, only names the
// CAs that the client side announces. The descriptor is non-blocking afterwards.
//   0; -1000, -10000, or TLS_NO_SOCKET, logged. On failure `tls` holds what was made so far, for
//   tls_close.
int32_t tls_open(tls_t* tls, const char* host, int32_t port, int32_t timeout_ms,
                 const char* cer_file, const link_options_t* options,
                 const std::atomic<bool>* interrupted);

// Shuts down and frees what there is, logging each step, and clears the record.
void tls_close(tls_t* tls);
