// The cloud's host name resolved into its IPv4 addresses, in random order, handed out one at a
// time in rounds.
#pragma once

#include <netdb.h>
#include <stdint.h>

#include "util/mutex.h"

constexpr int kIpTextSize = 32;

struct ip_node_t {
    char* ip;
    ip_node_t* next;
};

struct ip_list_t {
    mutex_t lock;
    ip_node_t* head GUARDED_BY(lock) = nullptr;  // what the next call hands out
    ip_node_t* tail GUARDED_BY(lock) = nullptr;
    ip_node_t* first GUARDED_BY(lock) = nullptr;  // what the first call handed out
};

// Makes libc set up its resolver, before any thread exists: one that lacks memory at its first use
// can be left with its lock held, or failing for good. False when memory is out.
bool dns_prepare();

// Resolves `domain`, which can take as long as the resolver's own time-outs. A new list, empty
// when the name has no addresses; NULL when it doesn't resolve or memory is out.
ip_list_t* ip_list_parse(const char* domain);

// An empty list; NULL when memory is out.
ip_list_t* ip_list_init();

// Appends a copy of `ip`: 0 or -10000.
int32_t ip_list_add(ip_list_t* list, const char* ip);

// Appends every address of `host` in random order: 0 or -10000.
int32_t ip_list_fill(ip_list_t* list, const struct hostent* host);

// The next address, the list's own until it is destroyed; NULL at the end of a round. Of A, B, C
// the calls give A, B, C, NULL, B, C, NULL, B, C ...: the first one handed out marks the end of
// each round and is not given again. A single address is given once, then NULL for ever. The
// caller resolves anew at each NULL.
const char* ip_list_get_next_ip(ip_list_t* list);

// NULL is ignored. Nobody may use the list any more.
void ip_list_destroy(ip_list_t* list);
