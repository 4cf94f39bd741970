#include "cloud/msg_id_pool.h"

#include <stdlib.h>

#include "cloud_svr_codes.h"
#include "util/log.h"
#include "util/memory.h"

namespace {

int32_t block_count(const msg_id_pool_t* pool) {
    return pool->max_size / MSG_ID_BLOCK_SIZE + (pool->max_size % MSG_ID_BLOCK_SIZE != 0 ? 1 : 0);
}

uint64_t bit_of(int32_t index) {
    return 1ULL << (index % MSG_ID_BLOCK_SIZE);
}

bool is_used_unsafe(const msg_id_pool_t* pool, int32_t index) REQUIRES(pool->lock) {
    const msg_id_block_t* const block = pool->blocks[index / MSG_ID_BLOCK_SIZE];
    return block != nullptr && (block->used & bit_of(index)) != 0;
}

msg_data_t* data_of_unsafe(msg_id_pool_t* pool, int32_t index) REQUIRES(pool->lock) {
    return &pool->blocks[index / MSG_ID_BLOCK_SIZE]->data[index % MSG_ID_BLOCK_SIZE];
}

// The next free slot round-robin; there is one. A full block is passed over in one step.
int32_t free_index_unsafe(const msg_id_pool_t* pool) REQUIRES(pool->lock) {
    int32_t index = pool->next_index;
    while (is_used_unsafe(pool, index)) {
        const msg_id_block_t* const block = pool->blocks[index / MSG_ID_BLOCK_SIZE];
        const int32_t step =
            block->used == UINT64_MAX ? MSG_ID_BLOCK_SIZE - index % MSG_ID_BLOCK_SIZE : 1;
        index = index < pool->max_size - step ? index + step : 0;
    }
    return index;
}

int32_t store_unsafe(msg_id_pool_t* pool, const msg_data_t* data) REQUIRES(pool->lock) {
    const int32_t index = free_index_unsafe(pool);
    msg_id_block_t*& block = pool->blocks[index / MSG_ID_BLOCK_SIZE];
    if (block == nullptr) {
        block = static_cast<msg_id_block_t*>(calloc(1, sizeof(msg_id_block_t)));
    }
    if (block == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(sizeof(msg_id_block_t)));
        return CLOUD_SVR_E_RESOURCE;
    }
    block->used |= bit_of(index);
    *data_of_unsafe(pool, index) = *data;
    pool->next_index = index + 1 < pool->max_size ? index + 1 : 0;
    ++pool->used_count;
    return index + 1;
}

void free_unsafe(msg_id_pool_t* pool, int32_t index) REQUIRES(pool->lock) {
    msg_id_block_t*& block = pool->blocks[index / MSG_ID_BLOCK_SIZE];
    block->used &= ~bit_of(index);
    if (block->used == 0) {
        free(block);
        block = nullptr;
    }
    --pool->used_count;
    pool->given_back.wake_all();
}

bool id_is_bad(const msg_id_pool_t* pool, int32_t id) {
    if (pool == nullptr) {
        LOG_ERROR("the msg_id_pool_t is NULL");
        return true;
    }
    if (id < 1 || id > pool->max_size) {
        LOG_ERROR("the message is out of range");
        return true;
    }
    return false;
}

bool is_overdue(const msg_data_t& data, uint32_t now_ms) {
    return static_cast<int32_t>(now_ms - data.start_ms) >= data.timeout_ms;
}

// The index from which on, at or behind `index`, a used one may stand: empty blocks are skipped.
int32_t skip_empty_unsafe(const msg_id_pool_t* pool, int32_t index) REQUIRES(pool->lock) {
    int32_t block = index / MSG_ID_BLOCK_SIZE;
    if (pool->blocks[block] != nullptr) {
        return index;
    }
    while (block < block_count(pool) && pool->blocks[block] == nullptr) {
        ++block;
    }
    return block < block_count(pool) ? block * MSG_ID_BLOCK_SIZE : pool->max_size;
}

}  // namespace

msg_id_pool_t* msg_id_pool_init(int32_t size) {
    if (size < 1) {
        LOG_ERROR("the size is not available, size=%d", size);
        return nullptr;
    }
    LOG_DEBUG("begin to initialize the message id pool...");
    record_ptr<msg_id_pool_t> pool = record_new<msg_id_pool_t>();
    if (pool == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(sizeof(msg_id_pool_t)));
        return nullptr;
    }
    pool->max_size = size;
    const auto count = static_cast<size_t>(block_count(pool.get()));
    const mutex_lock_t held(pool->lock);
    pool->blocks = static_cast<msg_id_block_t**>(calloc(count, sizeof(msg_id_block_t*)));
    if (pool->blocks == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(count * sizeof(msg_id_block_t*)));
        return nullptr;
    }
    LOG_DEBUG("end to initialize the message id pool...");
    return pool.release();
}

void msg_id_pool_destroy(msg_id_pool_t* pool) {
    if (pool == nullptr) {
        LOG_WARN("the msg_id_pool_t is NULL");
        return;
    }
    LOG_DEBUG("begin to destroy the message id pool...");
    {
        const record_ptr<msg_id_pool_t> owned(pool);
        const mutex_lock_t held(pool->lock);
        LOG_DEBUG("free the data in the message id pool");
        for (int32_t block = 0; block < block_count(pool); ++block) {
            free(pool->blocks[block]);
        }
        free(pool->blocks);
    }
    LOG_DEBUG("end to destroy the message id pool...");
}

void msg_id_pool_close(msg_id_pool_t* pool) {
    const mutex_lock_t held(pool->lock);
    pool->closed = true;
    pool->given_back.wake_all();
}

int32_t msg_id_pool_get_max_size(const msg_id_pool_t* pool) {
    if (pool == nullptr) {
        LOG_ERROR("the msg_id_pool_t is NULL");
        return 0;
    }
    return pool->max_size;
}

const msg_data_t* msg_id_pool_get_data(msg_id_pool_t* pool, int32_t id) {
    if (id_is_bad(pool, id)) {
        return nullptr;
    }
    const mutex_lock_t held(pool->lock);
    return is_used_unsafe(pool, id - 1) ? data_of_unsafe(pool, id - 1) : nullptr;
}

int32_t msg_id_get_from_idle(msg_id_pool_t* pool, const msg_data_t* data) {
    if (pool == nullptr || data == nullptr) {
        LOG_ERROR("the msg_id_pool_t or msg_data_t is NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    const deadline_t deadline = deadline_in(data->timeout_ms);
    const mutex_lock_t held(pool->lock);
    while (!pool->closed && pool->used_count >= pool->max_size) {
        const uint32_t left = deadline_left(deadline);
        if (left == 0) {
            return CLOUD_SVR_E_TIMEOUT;
        }
        pool->given_back.wait(pool->lock, left);
    }
    return pool->closed ? CLOUD_SVR_E_NO_CONNECTION : store_unsafe(pool, data);
}

void msg_id_put_to_idle(msg_id_pool_t* pool, int32_t id) {
    msg_data_t data;
    (void)msg_id_take(pool, id, &data);
}

bool msg_id_take(msg_id_pool_t* pool, int32_t id, msg_data_t* data) {
    if (id_is_bad(pool, id)) {
        return false;
    }
    const mutex_lock_t held(pool->lock);
    if (!is_used_unsafe(pool, id - 1)) {
        return false;
    }
    *data = *data_of_unsafe(pool, id - 1);
    free_unsafe(pool, id - 1);
    return true;
}

int32_t msg_id_take_overdue(msg_id_pool_t* pool, int32_t after, uint32_t now_ms, msg_data_t* data) {
    const mutex_lock_t held(pool->lock);
    for (int32_t index = after; pool->used_count > 0 && index < pool->max_size; ++index) {
        index = skip_empty_unsafe(pool, index);
        if (index >= pool->max_size) {
            break;
        }
        if (is_used_unsafe(pool, index) && is_overdue(*data_of_unsafe(pool, index), now_ms)) {
            *data = *data_of_unsafe(pool, index);
            free_unsafe(pool, index);
            return index + 1;
        }
    }
    return 0;
}
