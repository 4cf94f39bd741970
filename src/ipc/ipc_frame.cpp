#include "ipc/ipc_frame.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>

text_ptr ipc_frame_build(const char* text, size_t length) {
    if (length > UINT32_MAX - kIpcHeaderSize) {
        return nullptr;
    }
    text_ptr frame(static_cast<char*>(malloc(kIpcHeaderSize + length)));
    if (frame == nullptr) {
        return nullptr;
    }
    auto* const header = reinterpret_cast<unsigned char*>(frame.get());
    memcpy(header, kIpcMagic, kIpcMagicSize);
    header[2] = static_cast<unsigned char>(length >> 24);
    header[3] = static_cast<unsigned char>(length >> 16);
    header[4] = static_cast<unsigned char>(length >> 8);
    header[5] = static_cast<unsigned char>(length);
    memcpy(frame.get() + kIpcHeaderSize, text, length);
    return frame;
}

bool ipc_outbox_is_empty(const ipc_outbox_t* outbox) {
    return outbox->sent == outbox->size;
}

bool ipc_outbox_flush(ipc_outbox_t* outbox, int fd) {
    while (!ipc_outbox_is_empty(outbox)) {
        const ssize_t sent = send(fd, outbox->bytes.get() + outbox->sent,
                                  outbox->size - outbox->sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return errno == EAGAIN;
        }
        outbox->sent += static_cast<size_t>(sent);
    }
    *outbox = ipc_outbox_t{};
    return true;
}

namespace {

// Makes room for `size` more bytes behind those that wait, dropping what has been sent.
bool outbox_reserve(ipc_outbox_t* outbox, size_t size) {
    const size_t waiting = outbox->size - outbox->sent;
    if (outbox->size + size <= outbox->capacity) {
        return true;
    }
    const size_t capacity = waiting + size;
    text_ptr bytes(static_cast<char*>(malloc(capacity)));
    if (bytes == nullptr) {
        return false;
    }
    if (waiting > 0) {
        memcpy(bytes.get(), outbox->bytes.get() + outbox->sent, waiting);
    }
    outbox->bytes = std::move(bytes);
    outbox->size = waiting;
    outbox->sent = 0;
    outbox->capacity = capacity;
    return true;
}

bool outbox_keep(ipc_outbox_t* outbox, const char* rest, size_t size) {
    if (!outbox_reserve(outbox, size)) {
        return false;
    }
    memcpy(outbox->bytes.get() + outbox->size, rest, size);
    outbox->size += size;
    return true;
}

ssize_t send_once(int fd, const char* bytes, size_t size) {
    ssize_t sent = 0;
    do {
        sent = send(fd, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent;
}

}  // namespace

ssize_t ipc_outbox_send(ipc_outbox_t* outbox, int fd, const char* frame, size_t size) {
    if (!ipc_outbox_flush(outbox, fd)) {
        return -1;
    }
    size_t done = 0;
    if (ipc_outbox_is_empty(outbox)) {
        const ssize_t sent = send_once(fd, frame, size);
        if (sent < 0 && errno != EAGAIN) {
            return -1;
        }
        done = sent > 0 ? static_cast<size_t>(sent) : 0;
    } else if (outbox->size - outbox->sent + size > IPC_OUTBOX_LIMIT) {
        errno = EAGAIN;
        return -1;
    }
    if (done < size && !outbox_keep(outbox, frame + done, size - done)) {
        // Half a frame would put the peer out of step for good: the connection ends instead.
        if (done > 0) {
            shutdown(fd, SHUT_RDWR);
        }
        errno = ENOMEM;
        return -1;
    }
    return static_cast<ssize_t>(size);
}
