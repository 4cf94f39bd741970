#include <string.h>
#include <sys/mman.h>

#include "memdebug.h"

enum {
    GUARD_PATTERN = 0xFB,
    NEW_PATTERN = 0xCD,
    FREED_PATTERN = 0xDD,
    FIRST_SLOTS = 1024,  /* a power of two, as it grows by doubling */
    FREED_BLOCKS = 256,  /* that a second free is recognised for */
    FREED_LARGEST = 1024 /* bytes; what is larger goes back to the C library at once */
};

static struct block* table; /* open addressing, linear probing */
static size_t slots;
static size_t used;

static struct block ring[FREED_BLOCKS];
static size_t ring_next;

/* Where the pattern ends; mended from there on. */
static size_t bad_byte(unsigned char* from, size_t size, unsigned char pattern) {
    size_t i = 0;
    while (i < size && from[i] == pattern) {
        i++;
    }
    memset(from + i, pattern, size - i);
    return i;
}

static size_t front_size(const struct block* block) {
    return (size_t)(block->user - (unsigned char*)block->raw);
}

struct damage block_check(const struct block* block) {
    const size_t front = front_size(block);
    const size_t before = bad_byte(block->raw, front, GUARD_PATTERN);
    const size_t after = bad_byte(block->user + block->size, GUARD_SIZE, GUARD_PATTERN);
    struct damage damage = {NULL, 0};
    if (before < front) {
        damage.what = "underrun";
        damage.offset = (ptrdiff_t)before - (ptrdiff_t)front;
    } else if (after < GUARD_SIZE) {
        damage.what = "overrun";
        damage.offset = (ptrdiff_t)(block->size + after);
    }
    return damage;
}

struct damage freed_check(const struct block* block) {
    const size_t at = bad_byte(block->user, block->size, FREED_PATTERN);
    const struct damage damage = {at < block->size ? "write after free" : NULL, (ptrdiff_t)at};
    return damage;
}

static size_t slot_wanted(const void* user) {
    const uint32_t hash = (uint32_t)((uintptr_t)user >> 3) * 2654435761U;
    return (hash ^ hash >> 15) & (slots - 1);
}

/* The slot of `user`, or the empty one where it belongs. The table is never full. */
static size_t slot_find(const void* user) {
    size_t slot = slot_wanted(user);
    while (table[slot].user != NULL && table[slot].user != user) {
        slot = (slot + 1) & (slots - 1);
    }
    return slot;
}

static bool table_grow(void) {
    struct block* const old = table;
    const size_t old_slots = slots;
    const size_t new_slots = slots == 0 ? FIRST_SLOTS : slots * 2;
    void* const memory = mmap(NULL, new_slots * sizeof(*table), PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return false;
    }
    table = memory;
    slots = new_slots;
    for (size_t i = 0; i < old_slots; i++) {
        if (old[i].user != NULL) {
            table[slot_find(old[i].user)] = old[i];
        }
    }
    if (old != NULL) {
        munmap(old, old_slots * sizeof(*old));
    }
    return true;
}

bool blocks_add(const struct block* block) {
    if ((used + 1) * 4 > slots * 3 && !table_grow()) {
        return false;
    }
    memset(block->raw, GUARD_PATTERN, front_size(block));
    memset(block->user, NEW_PATTERN, block->size);
    memset(block->user + block->size, GUARD_PATTERN, GUARD_SIZE);
    table[slot_find(block->user)] = *block;
    used++;
    return true;
}

bool blocks_find(const void* user, struct block* found) {
    if (slots == 0) {
        return false;
    }
    *found = table[slot_find(user)];
    return found->user != NULL;
}

bool blocks_remove(const void* user, struct block* removed) {
    if (!blocks_find(user, removed)) {
        return false;
    }
    /* Whatever probing would have led past the gap moves into it. */
    size_t gap = slot_find(user);
    for (size_t i = (gap + 1) & (slots - 1); table[i].user != NULL; i = (i + 1) & (slots - 1)) {
        const size_t wanted = slot_wanted(table[i].user);
        if (((i - wanted) & (slots - 1)) >= ((i - gap) & (slots - 1))) {
            table[gap] = table[i];
            gap = i;
        }
    }
    memset(&table[gap], 0, sizeof(table[gap]));
    used--;
    return true;
}

void freed_add(const struct block* block, void (*release)(const struct block* oldest)) {
    struct block* const place = &ring[ring_next];
    ring_next = (ring_next + 1) % FREED_BLOCKS;
    if (place->raw != NULL) {
        release(place);
    }
    memset(block->user, FREED_PATTERN, block->size);
    *place = *block;
    if (block->size > FREED_LARGEST) {
        release(place);
        place->raw = NULL;
    }
}

bool freed_find(const void* user, struct block* found) {
    for (size_t i = 1; i <= FREED_BLOCKS; i++) {
        *found = ring[(ring_next + FREED_BLOCKS - i) % FREED_BLOCKS];
        if (found->user == user) {
            return true;
        }
    }
    return false;
}

void blocks_each(void (*each)(const struct block* block)) {
    for (size_t i = 0; i < slots; i++) {
        if (table[i].user != NULL) {
            each(&table[i]);
        }
    }
}

void freed_each(void (*each)(const struct block* block)) {
    for (size_t i = 0; i < FREED_BLOCKS; i++) {
        if (ring[i].raw != NULL) {
            each(&ring[i]);
        }
    }
}
