// The local frame: 0xA1 0xB2, a 32-bit big-endian length, that many bytes of text. Both ends use
// it. Built and read here without ever waiting; ipc_socket.h adds the sockets and the waits.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "util/memory.h"

constexpr size_t kIpcMagicSize = 2;
constexpr unsigned char kIpcMagic[kIpcMagicSize] = {0xA1, 0xB2};
constexpr size_t kIpcLengthSize = 4;
constexpr size_t kIpcHeaderSize = kIpcMagicSize + kIpcLengthSize;

// A frame around the first `length` bytes of `text`, length + 6 bytes; empty when memory is out.
text_ptr ipc_frame_build(const char* text, size_t length);

// Magic and length come in one read where they can.
enum ipc_field_t { IPC_FIELD_HEADER, IPC_FIELD_TEXT };

// Reads one frame after another from a descriptor in as many steps as its bytes need. Memory grows
// with the bytes that came, not with the length that was announced.
//
// A field is meant to arrive whole: what lacks bytes of it may take IPC_FIELD_GRACE_MS more, from
// the last byte that came (a sender can be interrupted in the middle of one send call, a stalled
// one must not swallow what follows), and a frame's next field IPC_FRAME_GRACE_MS.
struct ipc_reader_t {
    ipc_field_t field = IPC_FIELD_HEADER;
    uint32_t length = 0;  // of the text, once its field is through
    unsigned char header[kIpcHeaderSize] = {};
    text_ptr text;              // bytes of the text so far
    size_t capacity = 0;        // bytes allocated for it
    size_t have = 0;            // bytes of the current field so far
    uint32_t last_byte_ms = 0;  // monotonic time of the last byte
};

constexpr uint32_t IPC_FIELD_GRACE_MS = 100;
constexpr uint32_t IPC_FRAME_GRACE_MS = 1000;

// Nothing is complete yet: call again when the descriptor is readable or ipc_reader_left has
// passed.
constexpr int32_t IPC_READER_MORE = 1;

// Takes what `fd` holds, at most one frame.
//   0 with `text` set (NUL-terminated; the text's length is in `length` until the next call);
//   IPC_READER_MORE; -1102 when the peer has closed; -10100 for a wrong magic; -10000 when memory
//   is out; -10101 when a read failed or a field came short. After a failure the next byte is
//   taken as the first of a new frame.
int32_t ipc_reader_step(ipc_reader_t* reader, int fd, text_ptr* text);

// Milliseconds until a frame that was begun counts as cut short; -1 between two frames.
int ipc_reader_left(const ipc_reader_t* reader);

// Bytes that wait for a peer to take them, whole frames one behind the other.
struct ipc_outbox_t {
    text_ptr bytes;
    size_t size = 0;
    size_t sent = 0;
    size_t capacity = 0;
};

constexpr size_t IPC_OUTBOX_LIMIT = 128 * 1024;

// Sends a frame without waiting, behind what the outbox still holds; what the peer doesn't take
// at once is kept. A frame goes out whole or not at all.
//   the frame's size; -1 with errno set when the peer is gone, and with EAGAIN when it leaves more
//   than IPC_OUTBOX_LIMIT bytes untaken (one longer frame is kept if nothing else waits).
ssize_t ipc_outbox_send(ipc_outbox_t* outbox, int fd, const char* frame, size_t size);

// Sends on what waits, without waiting; false when the peer is gone.
bool ipc_outbox_flush(ipc_outbox_t* outbox, int fd);

bool ipc_outbox_is_empty(const ipc_outbox_t* outbox);
