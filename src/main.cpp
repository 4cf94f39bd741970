#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "config.h"
#include "link/dns.h"
#include "link/tls.h"
#include "server/cloud_svr.h"
#include "server/cloud_svr_handle.h"
#include "util/log.h"

namespace {

constexpr char kSocketPath[] = "/tmp/cloud_svr";
constexpr int kExitNoConfig = -1;
constexpr int kExitNoServer = -2;
constexpr int kExitNotStarted = -3;

// For the SIGTERM handler only. Written once, before SIGTERM is let through.
cloud_svr_t* g_server = nullptr;

void on_stop(int signal_number) {
    (void)signal_number;
    LOG_DEBUG("receive SIGTERM");
    cloud_svr_stop(g_server);
}

// 0 marks "no descriptor" in several records, and what is opened first must not become the log.
void standard_descriptors_open() {
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = open("/dev/null", O_RDWR);
    }
    if (fd > STDERR_FILENO) {
        close(fd);
    }
}

// SIGTERM is held back, in this thread and in all that it creates, until the main thread waits for
// the worker: it then finds no lock held, and none that came earlier is lost.
void signals_prepare() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    // A peer that has gone makes a send fail; it must not end the process.
    signal(SIGPIPE, SIG_IGN);
}

void signals_install() {
    LOG_DEBUG("register on_stop to handle SIGTERM");
    signal(SIGTERM, on_stop);
    signal(SIGINT, on_stop);
    LOG_DEBUG("ignore SIGINT");
    signal(SIGINT, SIG_IGN);
}

// One arena for all threads: an arena for each would keep what short tasks leave behind.
void malloc_prepare() {
#ifdef M_ARENA_MAX
    (void)mallopt(M_ARENA_MAX, 1);
#endif
}

// There is nothing yet that would have to be cleaned up.
void library_lacks_memory() {
    LOG_ERROR("fail to initialize a unix server");
    fflush(stdout);
    _exit(kExitNoServer);
}

// What libraries set up at their first use and don't recover from when memory is out then: it
// must not be out now.
void libraries_prepare() {
    tls_prepare(library_lacks_memory);
    if (!dns_prepare()) {
        library_lacks_memory();
    }
}

int start(config_t* config) {
    libraries_prepare();
    g_server = cloud_svr_init(kSocketPath, config);
    if (g_server == nullptr) {
        LOG_ERROR("fail to initialize a unix server");
        config_free(config);
        return kExitNoServer;
    }
    const int32_t error =
        cloud_svr_start(g_server, cloud_svr_handle_message, cloud_svr_handle_close);
    if (error != 0) {
        cloud_svr_destroy(g_server);
        LOG_ERROR("fail to start the unix server, error=%d", error);
        config_free(config);
        return kExitNotStarted;
    }
    cloud_svr_wait(g_server);
    cloud_svr_destroy(g_server);
    config_free(config);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    standard_descriptors_open();
    signals_prepare();
    malloc_prepare();
    srand(static_cast<unsigned>(getpid()) + static_cast<unsigned>(time(nullptr)));
    LOG_DEBUG("start...");
    signals_install();
    config_t* const config = config_load(argc, argv);
    if (config == nullptr) {
        return kExitNoConfig;
    }
    const int code = start(config);
    if (code == 0) {
        LOG_DEBUG("stop...");
    }
    return code;
}
