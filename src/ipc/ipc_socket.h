// Unix-domain stream sockets that carry local frames (ipc_frame.h), for both ends. No state is
// kept; any thread may call, but two threads that send on one descriptor at once, or read from
// it, are the caller's to keep apart.
#pragma once

#include <stdint.h>

#include "ipc/ipc_frame.h"
#include "util/memory.h"

// A listening socket bound to `path`, left in blocking mode; an existing file there is not
// removed. The descriptor, the caller's to close, or -1100.
int32_t ipc_socket_init_as_server(const char* path);

constexpr uint32_t IPC_SEND_WAIT_MS = 5000;

// A socket connected to `path`, left in blocking mode. A server that accepts nobody is waited for
// `wait_ms`, at least 1. The descriptor, the caller's to close; -10000 when it can't be created,
// -1101 when it can't be connected.
int32_t ipc_socket_init_as_client(const char* path, uint32_t wait_ms = IPC_SEND_WAIT_MS);

// Sends one frame and waits while the peer doesn't take it, at most IPC_SEND_WAIT_MS without
// progress.
//   0; -10000 when memory is out; -1101 when sending failed: the frame may then be cut short, and
//   the connection is good for nothing but closing.
int32_t ipc_socket_send(int fd, const char* text);

// Sends one frame without waiting, through an outbox that keeps what the peer doesn't take.
//   0; -10000 when memory is out; -1101 when the peer is gone or leaves too much untaken.
int32_t ipc_socket_post(int fd, ipc_outbox_t* outbox, const char* text);

// ipc_reader_step with its log line for a frame that came.
int32_t ipc_socket_read(ipc_reader_t* reader, int fd, text_ptr* text);

// Reads one frame, waiting for its first byte for ever and for the rest as ipc_frame.h says.
//   0 with `text` set; -1102, -10100, -10000, -10101 as ipc_reader_step gives them.
int32_t ipc_socket_recv(int fd, text_ptr* text);

// ipc_socket_recv once the socket has become readable within `timeout_ms`.
//   -3000 when it hasn't; -20002 when the time ran out otherwise; -10000 when waiting failed.
int32_t ipc_socket_recv_timed(int fd, int32_t timeout_ms, text_ptr* text);
