#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "memdebug.h"

enum { LINE_SIZE = 512, SITE_SIZE = 128, SITES = 4, MAPS = 32 };

struct map {
    uintptr_t start, past, offset;
    char name[64];
};

struct chunk {
    char bytes[4096];
    ssize_t next, size;
};

static char path[256]; /* of the log; empty: standard error */

void report_init(void) {
    const char* const value = getenv("CLOUD_SVR_MEMDEBUG_LOG");
    if (value != NULL && strlen(value) < sizeof(path)) {
        memcpy(path, value, strlen(value) + 1);
    }
}

void report_line(const char* format, ...) {
    char line[LINE_SIZE];
    va_list arguments;
    va_start(arguments, format);
    int size = snprintf(line, sizeof(line), "memdebug[%d]: ", (int)getpid());
    size += vsnprintf(line + size, sizeof(line) - (size_t)size - 1, format, arguments);
    va_end(arguments);
    if (size > LINE_SIZE - 2) {
        size = LINE_SIZE - 2;
    }
    line[size] = '\n';
    /* Opened for each line: a program that closes all descriptors does no harm. */
    const int fd =
        path[0] == '\0' ? dup(STDERR_FILENO) : open(path, O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (fd >= 0) {
        const ssize_t written = write(fd, line, (size_t)size + 1);
        (void)written; /* there is nobody to tell */
        close(fd);
    }
}

/* The next line of a descriptor, without its end and cut to `line`; false at the end. What was read
 * beyond it stays in `chunk`: /proc takes long for small reads. */
static bool read_line(int fd, struct chunk* chunk, char line[LINE_SIZE]) {
    size_t size = 0;
    for (;;) {
        if (chunk->next == chunk->size) {
            chunk->size = read(fd, chunk->bytes, sizeof(chunk->bytes));
            chunk->next = 0;
        }
        if (chunk->size <= 0) {
            return false;
        }
        const char c = chunk->bytes[chunk->next++];
        if (c == '\n') {
            line[size] = '\0';
            return true;
        }
        if (size < LINE_SIZE - 1) {
            line[size++] = c;
        }
    }
}

/* A line of maps: START-END PERMISSIONS OFFSET DEVICE INODE PATH. False when it isn't a file's. */
static bool map_parse(char* line, struct map* map) {
    char* end = NULL;
    const char* const file = strrchr(line, '/');
    map->start = (uintptr_t)strtoul(line, &end, 16);
    map->past = (uintptr_t)strtoul(end + 1, &end, 16);
    char* const offset = strchr(end + 1, ' ');
    if (file == NULL || offset == NULL) {
        return false;
    }
    map->offset = (uintptr_t)strtoul(offset, NULL, 16);
    snprintf(map->name, sizeof(map->name), "%s", file + 1);
    return true;
}

static bool map_find(uintptr_t site, struct map* map) {
    static struct chunk chunk;
    char line[LINE_SIZE];
    bool found = false;
    const int fd = open("/proc/self/maps", O_RDONLY);
    chunk.next = chunk.size = 0;
    while (fd >= 0 && !found && read_line(fd, &chunk, line)) {
        found = map_parse(line, map) && site >= map->start && site < map->past;
    }
    if (fd >= 0) {
        close(fd);
    }
    return found;
}

/* A library that was named once keeps its name after it was unloaded. */
static const struct map* map_of(uintptr_t site) {
    static struct map maps[MAPS];
    static size_t known;
    for (size_t i = 0; i < known; i++) {
        if (site >= maps[i].start && site < maps[i].past) {
            return &maps[i];
        }
    }
    known -= known == MAPS ? 1 : 0;
    return map_find(site, &maps[known]) ? &maps[known++] : NULL;
}

const char* report_site(uintptr_t site) {
    static char names[SITES][SITE_SIZE];
    static size_t next;
    char* const name = names[next++ % SITES];
    const struct map* const map = map_of(site);
    if (map == NULL) {
        snprintf(name, SITE_SIZE, "0x%lx", (unsigned long)site);
    } else {
        snprintf(name, SITE_SIZE, "%s+0x%lx", map->name,
                 (unsigned long)(site - map->start + map->offset));
    }
    return name;
}
