#include "ipc/local_client.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>

#include "cloud_svr_codes.h"
#include "ipc/ipc_socket.h"
#include "util/log.h"
#include "util/memory.h"
#include "util/mutex.h"

namespace {

constexpr int kNumberBits = 10;
constexpr int32_t kNumberMask = (1 << kNumberBits) - 1;
constexpr int32_t kGenerationMask = INT32_MAX >> kNumberBits;
static_assert(FD_SETSIZE <= kNumberMask + 1, "a descriptor's number fits its part of a handle");

// What belongs to one descriptor number, made at its first use and kept: the generation must
// outlive every client that had the number.
struct slot_t {
    mutex_t lock;
    int32_t generation GUARDED_BY(lock) = 0;
    bool open GUARDED_BY(lock) = false;
    ipc_outbox_t outbox GUARDED_BY(lock);

    // The client that `outbox` holds something for, or 0. Written under the lock, read without: the
    // thread that reads from the clients must not wait for one that sends.
    std::atomic<int32_t> waiting{0};
};

std::atomic<slot_t*> g_slots[FD_SETSIZE];
std::atomic<int> g_waker{-1};

slot_t* slot_of(int32_t client) {
    return client <= 0 ? nullptr : g_slots[client & kNumberMask].load(std::memory_order_acquire);
}

bool is_current_unsafe(const slot_t* slot, int32_t client) REQUIRES(slot->lock) {
    return slot->open && slot->generation == client >> kNumberBits;
}

void waiting_set_unsafe(slot_t* slot, int32_t client) REQUIRES(slot->lock) {
    slot->waiting = ipc_outbox_is_empty(&slot->outbox) ? 0 : client;
}

// Only the thread that accepts makes slots, so there is no race for one.
slot_t* slot_make(int fd) {
    slot_t* slot = g_slots[fd].load(std::memory_order_acquire);
    if (slot == nullptr) {
        slot = record_new<slot_t>().release();
        g_slots[fd].store(slot, std::memory_order_release);
    }
    return slot;
}

void wake() {
    const int waker = g_waker.load();
    if (waker >= 0) {
        (void)eventfd_write(waker, 1);
    }
}

}  // namespace

int32_t local_client_open(int fd) {
    slot_t* const slot = slot_make(fd);
    if (slot == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(sizeof(slot_t)));
        return CLOUD_SVR_E_RESOURCE;
    }
    (void)fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    const mutex_lock_t held(slot->lock);
    slot->generation = slot->generation == kGenerationMask ? 1 : slot->generation + 1;
    slot->open = true;
    return slot->generation << kNumberBits | fd;
}

void local_client_close(int32_t client) {
    slot_t* const slot = slot_of(client);
    if (slot == nullptr) {
        return;
    }
    const mutex_lock_t held(slot->lock);
    if (!is_current_unsafe(slot, client)) {
        return;
    }
    slot->open = false;
    slot->outbox = ipc_outbox_t{};
    slot->waiting = 0;
    close(local_client_fd(client));
}

bool local_client_is_open(int32_t client) {
    slot_t* const slot = slot_of(client);
    if (slot == nullptr) {
        return false;
    }
    const mutex_lock_t held(slot->lock);
    return is_current_unsafe(slot, client);
}

int local_client_fd(int32_t client) {
    return client & kNumberMask;
}

int32_t local_client_send(int32_t client, const char* text) {
    slot_t* const slot = slot_of(client);
    if (slot == nullptr) {
        return CLOUD_SVR_E_LOCAL_SEND;
    }
    const mutex_lock_t held(slot->lock);
    if (!is_current_unsafe(slot, client)) {
        return CLOUD_SVR_E_LOCAL_SEND;
    }
    const bool waited = slot->waiting != 0;
    const int32_t code = ipc_socket_post(local_client_fd(client), &slot->outbox, text);
    waiting_set_unsafe(slot, client);
    if (!waited && slot->waiting != 0) {
        wake();
    }
    return code;
}

bool local_client_is_waiting(int32_t client) {
    slot_t* const slot = slot_of(client);
    return slot != nullptr && slot->waiting == client;
}

void local_client_flush(int32_t client) {
    slot_t* const slot = slot_of(client);
    if (slot == nullptr) {
        return;
    }
    const mutex_lock_t held(slot->lock);
    if (is_current_unsafe(slot, client)) {
        // A client that is gone is noticed where it is read from.
        (void)ipc_outbox_flush(&slot->outbox, local_client_fd(client));
        waiting_set_unsafe(slot, client);
    }
}

void local_client_set_waker(int eventfd) {
    g_waker.store(eventfd);
}
