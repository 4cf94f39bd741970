#include <stdbool.h>
#include <stdio.h>

#include "memdebug.h"

enum {
    SITES = 1024, /* all further ones share an entry */
    SITES_REPORTED = 64,
    SMALLEST = 16, /* bytes of the first class; each next one is twice as large */
    CLASSES = 14,  /* the last one has no bound */
};

struct usage {
    uintptr_t site;
    size_t live, live_bytes;
    size_t peak, peak_bytes; /* each at its own time */
    unsigned long long total;
    bool reported;
};

static struct usage all;
static struct usage classes[CLASSES];
static struct usage sites[SITES + 1];

static void usage_add(struct usage* usage, size_t size) {
    usage->total++;
    usage->live++;
    usage->live_bytes += size;
    if (usage->live > usage->peak) {
        usage->peak = usage->live;
    }
    if (usage->live_bytes > usage->peak_bytes) {
        usage->peak_bytes = usage->live_bytes;
    }
}

static void usage_remove(struct usage* usage, size_t size) {
    usage->live--;
    usage->live_bytes -= size;
}

static struct usage* class_of(size_t size) {
    size_t bound = SMALLEST;
    struct usage* found = classes;
    while (size > bound && found < classes + CLASSES - 1) {
        bound *= 2;
        found++;
    }
    return found;
}

static struct usage* site_of(uintptr_t site) {
    const size_t first = (size_t)((uint32_t)site * 2654435761U >> 16) % SITES;
    for (size_t i = 0; i < SITES; i++) {
        struct usage* const usage = &sites[(first + i) % SITES];
        if (usage->site == 0) {
            usage->site = site;
        }
        if (usage->site == site) {
            return usage;
        }
    }
    return &sites[SITES];
}

void statistics_add(const struct block* block) {
    usage_add(&all, block->size);
    usage_add(class_of(block->size), block->size);
    usage_add(site_of(block->site), block->size);
}

void statistics_remove(const struct block* block) {
    usage_remove(&all, block->size);
    usage_remove(class_of(block->size), block->size);
    usage_remove(site_of(block->site), block->size);
}

static void usage_report(const struct usage* usage, const char* name) {
    report_line("%9lu bytes in %5lu blocks, peak %9lu in %5lu, %llu in all  %s",
                (unsigned long)usage->live_bytes, (unsigned long)usage->live,
                (unsigned long)usage->peak_bytes, (unsigned long)usage->peak, usage->total, name);
}

static struct usage* largest_site(void) {
    struct usage* found = NULL;
    for (size_t i = 0; i <= SITES; i++) {
        struct usage* const usage = &sites[i];
        if (usage->reported || usage->total == 0) {
            continue;
        }
        if (found == NULL || usage->live_bytes > found->live_bytes ||
            (usage->live_bytes == found->live_bytes && usage->peak_bytes > found->peak_bytes)) {
            found = usage;
        }
    }
    return found;
}

static void classes_report(void) {
    char name[48];
    size_t bound = SMALLEST;
    for (size_t i = 0; i < CLASSES; i++, bound *= 2) {
        const bool last = i + 1 == CLASSES;
        snprintf(name, sizeof(name), "blocks of %s %lu bytes", last ? "more than" : "up to",
                 (unsigned long)(last ? bound / 2 : bound));
        if (classes[i].total != 0) {
            usage_report(&classes[i], name);
        }
    }
}

static const char* site_name(const struct usage* usage) {
    return usage->site == 0 ? "further places" : report_site(usage->site);
}

void statistics_report(const char* occasion) {
    report_line("statistics %s", occasion);
    usage_report(&all, "all");
    classes_report();
    struct usage* usage = largest_site();
    for (size_t i = 0; i < SITES_REPORTED && usage != NULL; i++) {
        usage->reported = true;
        usage_report(usage, site_name(usage));
        usage = largest_site();
    }
    for (size_t i = 0; i <= SITES; i++) {
        sites[i].reported = false;
    }
}

void statistics_report_held(void) {
    for (size_t i = 0; i <= SITES; i++) {
        if (sites[i].live != 0) {
            report_line("HELD %lu bytes in %lu blocks from %s", (unsigned long)sites[i].live_bytes,
                        (unsigned long)sites[i].live, site_name(&sites[i]));
        }
    }
}
