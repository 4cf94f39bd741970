// Loads the plug-in, the cloud kit, and binds its three functions (include/cloud_kit.h is what a
// plug-in's author sees).
#pragma once

#include "../../include/cloud_kit.h"

// Each may be NULL: the library lacks it.
struct cloud_kit_func_t {
    respond_cloud_fn respond_cloud;
    build_request_of_hello_cloud_fn build_request_of_hello_cloud;
    recv_response_of_hello_cloud_fn recv_response_of_hello_cloud;
};

struct cloud_kit_t {
    void* handle;
    cloud_kit_func_t func;
};

// The library at `path`, searched for as dlopen does; NULL, logged, when it can't be loaded. The
// caller frees it with cloud_kit_destroy.
cloud_kit_t* cloud_kit_init(const char* path);

// Unloads the library: none of its functions may be running.
void cloud_kit_destroy(cloud_kit_t* kit);

// The kit's own table; NULL, logged, for a NULL kit.
const cloud_kit_func_t* cloud_kit_get_func(const cloud_kit_t* kit);
