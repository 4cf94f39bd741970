// The configuration loader on any file. What it lets through must hold what the daemon relies on.
#include <assert.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

#include "config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int fd = memfd_create("config", 0);
    static char path[32], program[] = "cloud_svr", option[] = "-c";
    snprintf(path, sizeof(path), "/proc/self/fd/%d", fd);
    (void)!(ftruncate(fd, 0) == 0 && pwrite(fd, data, size, 0) > 0);
    char* argv[] = {program, option, path, nullptr};
    optind = 1;
    config_t* const config = config_load(3, argv);
    assert(config == nullptr ||
           (config->domain[0] != '\0' && config->port > 0 && config->port <= 65535 &&
            config->heartbeat_interval_ms > 0 && config->request_timeout_ms > 0 &&
            config->max_message_number > 0 && config->max_client_number > 0));
    const link_options_t* const link = config == nullptr ? nullptr : config->link;
    assert(link == nullptr || !link->verify ||
           (link->server_name != nullptr && link->ca_file != nullptr));
    config_free(config);
    return 0;
}
