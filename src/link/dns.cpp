#include "link/dns.h"

#include <arpa/inet.h>
#include <stdlib.h>

#include "cloud_svr_codes.h"
#include "util/log.h"
#include "util/memory.h"

namespace {

struct ip_list_deleter_t {
    void operator()(ip_list_t* list) const { ip_list_destroy(list); }
};

size_t address_count(const struct hostent* host) {
    size_t count = 0;
    while (host->h_addr_list[count] != nullptr) {
        ++count;
    }
    return count;
}

// A random address among those not taken yet, which it then is.
size_t address_draw(char* taken, size_t count) {
    size_t index = static_cast<size_t>(rand()) % count;
    while (taken[index] != 0) {
        index = (index + 1) % count;
    }
    taken[index] = 1;
    return index;
}

int32_t address_add(ip_list_t* list, const struct hostent* host, size_t index) {
    char ip[kIpTextSize] = "";
    const bool shown =
        inet_ntop(host->h_addrtype, host->h_addr_list[index], ip, sizeof(ip)) != nullptr;
    if (!shown || ip_list_add(list, ip) != 0) {
        LOG_ERROR("fail to add the IP to the list, error=%d, IP=%s", CLOUD_SVR_E_RESOURCE, ip);
        return CLOUD_SVR_E_RESOURCE;
    }
    LOG_DEBUG("IP: %s", ip);
    return 0;
}

void rotate_unsafe(ip_list_t* list) REQUIRES(list->lock) {
    ip_node_t* const node = list->head;
    if (node == list->tail) {
        return;
    }
    list->head = node->next;
    node->next = nullptr;
    list->tail->next = node;
    list->tail = node;
}

}  // namespace

bool dns_prepare() {
    return gethostbyname("127.0.0.1") != nullptr || h_errno != NETDB_INTERNAL;
}

ip_list_t* ip_list_parse(const char* domain) {
    LOG_DEBUG("begin to parse the domain...");
    const struct hostent* const host = gethostbyname(domain);
    if (host == nullptr) {
        LOG_ERROR("fail to get host by name, error=%s", hstrerror(h_errno));
        return nullptr;
    }
    std::unique_ptr<ip_list_t, ip_list_deleter_t> list(ip_list_init());
    if (list == nullptr) {
        LOG_ERROR("fail to create a new list");
        return nullptr;
    }
    if (ip_list_fill(list.get(), host) != 0) {
        LOG_ERROR("fail to fill the IP into the list");
        return nullptr;
    }
    LOG_DEBUG("end to parse the domain...");
    return list.release();
}

ip_list_t* ip_list_init() {
    record_ptr<ip_list_t> list = record_new<ip_list_t>();
    if (list == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(sizeof(ip_list_t)));
    }
    return list.release();
}

int32_t ip_list_add(ip_list_t* list, const char* ip) {
    record_ptr<ip_node_t> node = record_new<ip_node_t>();
    if (node == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(sizeof(ip_node_t)));
        return CLOUD_SVR_E_RESOURCE;
    }
    node->ip = string_dup(ip);
    if (node->ip == nullptr) {
        LOG_ERROR("fail to copy string");
        return CLOUD_SVR_E_RESOURCE;
    }
    const mutex_lock_t held(list->lock);
    if (list->head == nullptr) {
        list->head = node.get();
    } else {
        list->tail->next = node.get();
    }
    list->tail = node.release();
    return 0;
}

int32_t ip_list_fill(ip_list_t* list, const struct hostent* host) {
    const size_t count = address_count(host);
    if (count == 0) {
        return 0;
    }
    const text_ptr taken(static_cast<char*>(calloc(count, 1)));
    if (taken == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(count));
        return CLOUD_SVR_E_RESOURCE;
    }
    for (size_t i = 0; i < count; ++i) {
        const int32_t code = address_add(list, host, address_draw(taken.get(), count));
        if (code != 0) {
            return code;
        }
    }
    return 0;
}

const char* ip_list_get_next_ip(ip_list_t* list) {
    if (list == nullptr) {
        return nullptr;
    }
    const mutex_lock_t held(list->lock);
    if (list->head == nullptr) {
        LOG_ERROR("the IP list is empty");
        return nullptr;
    }
    const bool round_is_over = list->first == list->head;
    if (list->first == nullptr) {
        list->first = list->head;
    }
    const char* const ip = round_is_over ? nullptr : list->head->ip;
    rotate_unsafe(list);
    return ip;
}

void ip_list_destroy(ip_list_t* list) {
    if (list == nullptr) {
        return;
    }
    const record_ptr<ip_list_t> owned(list);
    const mutex_lock_t held(list->lock);
    while (list->head != nullptr) {
        const record_ptr<ip_node_t> node(list->head);
        list->head = node->next;
        free(node->ip);
    }
}
