/* The parts of libcloud_svr_memdebug(3). Nothing here locks: all of it is used under the one lock
 * of memdebug.c, from a signal handler, too. */
#ifndef MEMDEBUG_H
#define MEMDEBUG_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

/* ---- blocks.c: the blocks that the program holds, and those that it gave back last. They are kept
 * outside of the blocks, so that a pointer is judged without reading what it points to. */

enum { GUARD_SIZE = 16 };

/* Memory is laid out as: guard (with what alignment takes before it), the program's, guard. */
struct block {
    unsigned char* user; /* what the program has; NULL in an empty place */
    void* raw;           /* what the C library gave; NULL once it has it back */
    size_t size;         /* bytes that the program asked for */
    uintptr_t site;      /* the code that asked for it */
    uintptr_t freed_by;  /* the code that gave it back */
};

/* The first bad byte, counted from the block's start. */
struct damage {
    const char* what; /* "overrun", "underrun", "write after free"; NULL: undamaged */
    ptrdiff_t offset;
};

/* Writes the guards and a pattern between them, and enters the block; false when there is no memory
 * for its entry. */
bool blocks_add(const struct block* block);

/* The block that starts at `user`, which _remove also takes out; false when the program holds none.
 */
bool blocks_find(const void* user, struct block* found);
bool blocks_remove(const void* user, struct block* removed);

/* Looks for damage, and mends it so that it isn't found again. */
struct damage block_check(const struct block* block);
struct damage freed_check(const struct block* block);

/* Fills a block that was taken out, and holds it back for a while to catch late users. Those that
 * leave for it are handed to `release`, which checks them and gives them to the C library. */
void freed_add(const struct block* block, void (*release)(const struct block* oldest));

/* The freed block that started at `user`, if it is not long ago. */
bool freed_find(const void* user, struct block* found);

void blocks_each(void (*each)(const struct block* block));
void freed_each(void (*each)(const struct block* block));

/* ---- statistics.c: who holds how much. */

void statistics_add(const struct block* block);
void statistics_remove(const struct block* block);

/* Writes them to the log: in all, by size, and by call site, those that hold most first. */
void statistics_report(const char* occasion);

/* Writes a line for each place whose blocks are held: at the end of a process its leaks, and what
 * it never meant to give back. */
void statistics_report_held(void);

/* ---- report.c: the log, written with system calls alone. */

/* Reads CLOUD_SVR_MEMDEBUG_LOG. Before that, and without it, the log is standard error. */
void report_init(void);

/* Writes one line, with the process id before it. */
void report_line(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* A place in the code as FILE+0xOFFSET, as addr2line -e FILE 0xOFFSET wants it. Valid until four
 * more were asked for. */
const char* report_site(uintptr_t site);

#endif
