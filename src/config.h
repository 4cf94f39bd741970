// The settings: one JSON file, named on the command line (cloud_svr.cfg(5)).
#pragma once

#include <stdint.h>

#include "link/link_options.h"

// Built once by config_load, only read afterwards, by any thread; the texts are its own.
struct config_t {
    char* certificate;  // path of the CA certificate file; NULL when the file gives no text for it
    char* cloud_kit;    // file name or path of the plug-in; NULL when there is none
    char* domain;       // host name of the cloud
    int32_t port;
    int32_t heartbeat_interval_ms;
    int32_t request_timeout_ms;
    int32_t max_message_number;  // requests to the cloud in flight
    int32_t max_client_number;   // local clients at once
    int32_t mem_limit_kb;        // printed only; 0 when absent
    link_options_t* link;        // NULL when the file has no object "link"
};

// The settings from the file behind "-c", or from "config.cfg" when there is no argument. NULL
// after the usage text was printed or the reason logged. The caller frees it with config_free.
config_t* config_load(int argc, char** argv);

void config_free(config_t* config);
