// The reading half of ipc_frame.h. It logs as the socket module, whose texts these are.
#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include "cloud_svr_codes.h"
#include "ipc/ipc_frame.h"
#include "util/clock.h"
#include "util/log.h"

namespace {

constexpr size_t kFirstCapacity = 1024;
constexpr size_t kReadAtMost = 64 * 1024;

size_t field_size(const ipc_reader_t* reader) {
    return reader->field == IPC_FIELD_HEADER ? kIpcHeaderSize : reader->length;
}

void reader_reset(ipc_reader_t* reader) {
    reader->field = IPC_FIELD_HEADER;
    reader->text.reset();
    reader->capacity = 0;
    reader->have = 0;
}

bool magic_is_wrong(const ipc_reader_t* reader) {
    return reader->field == IPC_FIELD_HEADER && reader->have >= kIpcMagicSize &&
           (reader->header[0] != kIpcMagic[0] || reader->header[1] != kIpcMagic[1]);
}

// Takes two bytes for the magic that they should have been; those behind begin another frame.
int32_t magic_drop(ipc_reader_t* reader) {
    LOG_ERROR("the magic does not match");
    reader->have -= kIpcMagicSize;
    memmove(reader->header, reader->header + kIpcMagicSize, reader->have);
    return CLOUD_SVR_E_FORMAT;
}

// What a read that came short, or failed, says and gives; `failed`: it gave -1.
int32_t field_failed(ipc_reader_t* reader, bool failed) {
    const ipc_field_t field = reader->field;
    const size_t have = reader->have;
    reader_reset(reader);
    if (field == IPC_FIELD_TEXT) {
        LOG_ERROR("fail to receive the message, code=%d", failed ? -1 : static_cast<int>(have));
    } else if (have < kIpcMagicSize) {
        LOG_ERROR("fail to receive the magic, code=%d", failed ? -1 : static_cast<int>(have));
    } else {
        LOG_ERROR("fail to receive the length, code=%d",
                  failed ? -1 : static_cast<int>(have - kIpcMagicSize));
    }
    return CLOUD_SVR_E_INCOMPLETE;
}

// Room for at least one more byte of the text and its terminator. The first buffer holds a common
// message whole; after that it doubles, never past what was announced.
bool text_reserve(ipc_reader_t* reader) {
    const uint64_t whole = static_cast<uint64_t>(reader->length) + 1;
    if (reader->capacity == whole || reader->have + 1 < reader->capacity) {
        return true;
    }
    uint64_t capacity = reader->capacity == 0 ? kFirstCapacity : reader->capacity * 2ULL;
    capacity = capacity < whole ? capacity : whole;
    if (capacity > SIZE_MAX / 2) {
        return false;
    }
    char* const grown =
        static_cast<char*>(realloc(reader->text.get(), static_cast<size_t>(capacity)));
    if (grown == nullptr) {
        return false;
    }
    (void)reader->text.release();
    reader->text.reset(grown);
    reader->capacity = static_cast<size_t>(capacity);
    return true;
}

ssize_t recv_buffer(int fd, void* buffer, size_t size) {
    ssize_t got = 0;
    do {
        got = recv(fd, buffer, size, MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    return got;
}

// One read into the current field: the bytes got, 0 closed, -1 with errno.
ssize_t field_read(ipc_reader_t* reader, int fd) {
    const size_t wanted = field_size(reader) - reader->have;
    if (reader->field == IPC_FIELD_HEADER) {
        return recv_buffer(fd, reader->header + reader->have, wanted);
    }
    const size_t room = reader->capacity - 1 - reader->have;
    size_t count = wanted < room ? wanted : room;
    count = count < kReadAtMost ? count : kReadAtMost;
    return recv_buffer(fd, reader->text.get() + reader->have, count);
}

int32_t field_end(ipc_reader_t* reader, text_ptr* text) {
    reader->have = 0;
    if (reader->field == IPC_FIELD_HEADER) {
        const unsigned char* const b = reader->header + kIpcMagicSize;
        reader->length = static_cast<uint32_t>(b[0]) << 24 | static_cast<uint32_t>(b[1]) << 16 |
                         static_cast<uint32_t>(b[2]) << 8 | b[3];
        reader->field = IPC_FIELD_TEXT;
        return IPC_READER_MORE;
    }
    reader->text.get()[reader->length] = '\0';
    *text = std::move(reader->text);
    reader_reset(reader);
    return 0;
}

int32_t out_of_memory(ipc_reader_t* reader) {
    LOG_ERROR("fail to malloc, size=%d", static_cast<int>(reader->length + 1));
    reader_reset(reader);
    return CLOUD_SVR_E_RESOURCE;
}

int32_t nothing_read(ipc_reader_t* reader, ssize_t got) {
    if (got == 0) {
        reader_reset(reader);
        return CLOUD_SVR_E_LOCAL_CLOSED;
    }
    if (errno != EAGAIN) {
        LOG_ERROR("fail to receive buffer, error=%d", errno);
        return field_failed(reader, true);
    }
    if (ipc_reader_left(reader) == 0) {
        return field_failed(reader, false);
    }
    return IPC_READER_MORE;
}

}  // namespace

int ipc_reader_left(const ipc_reader_t* reader) {
    if (reader->field == IPC_FIELD_HEADER && reader->have == 0) {
        return -1;
    }
    const size_t between = reader->field == IPC_FIELD_HEADER ? kIpcMagicSize : 0;
    const uint32_t grace = reader->have == between ? IPC_FRAME_GRACE_MS : IPC_FIELD_GRACE_MS;
    return static_cast<int>(deadline_left(deadline_t{reader->last_byte_ms, grace}));
}

int32_t ipc_reader_step(ipc_reader_t* reader, int fd, text_ptr* text) {
    for (;;) {
        if (magic_is_wrong(reader)) {
            return magic_drop(reader);
        }
        if (reader->field == IPC_FIELD_TEXT && !text_reserve(reader)) {
            return out_of_memory(reader);
        }
        // An empty text is read without a call: there is no byte to wait for.
        if (reader->have < field_size(reader)) {
            const ssize_t got = field_read(reader, fd);
            if (got <= 0) {
                return nothing_read(reader, got);
            }
            reader->have += static_cast<size_t>(got);
            reader->last_byte_ms = monotonic_ms_get();
            continue;
        }
        const int32_t code = field_end(reader, text);
        if (code != IPC_READER_MORE) {
            return code;
        }
    }
}
