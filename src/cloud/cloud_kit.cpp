#include "cloud/cloud_kit.h"

#include <dlfcn.h>
#include <stdlib.h>

#include "util/log.h"
#include "util/memory.h"

namespace {

template <typename function_t>
function_t symbol_get(void* handle, const char* name) {
    return reinterpret_cast<function_t>(dlsym(handle, name));
}

}  // namespace

cloud_kit_t* cloud_kit_init(const char* path) {
    if (path == nullptr) {
        LOG_ERROR("the path is NULL");
        return nullptr;
    }
    record_ptr<cloud_kit_t> kit = record_new<cloud_kit_t>();
    if (kit == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(sizeof(cloud_kit_t)));
        return nullptr;
    }
    kit->handle = dlopen(path, RTLD_LAZY);
    if (kit->handle == nullptr) {
        const char* const reason = dlerror();
        LOG_ERROR("fail to open the cloud-kit.so, path=%s, error=%s", path,
                  reason == nullptr ? "" : reason);
        return nullptr;
    }
    LOG_DEBUG("open the cloud-kit.so");
    cloud_kit_func_t& func = kit->func;
    func.respond_cloud = symbol_get<respond_cloud_fn>(kit->handle, "vorn_respond_cloud");
    func.build_request_of_hello_cloud = symbol_get<build_request_of_hello_cloud_fn>(
        kit->handle, "vorn_build_request_of_hello_cloud");
    func.recv_response_of_hello_cloud = symbol_get<recv_response_of_hello_cloud_fn>(
        kit->handle, "vorn_recv_response_of_hello_cloud");
    LOG_DEBUG("respond_cloud_fn: %p", reinterpret_cast<void*>(func.respond_cloud));
    LOG_DEBUG("build_request_of_hello_cloud_fn: %p",
              reinterpret_cast<void*>(func.build_request_of_hello_cloud));
    LOG_DEBUG("recv_response_of_hello_cloud_fn: %p",
              reinterpret_cast<void*>(func.recv_response_of_hello_cloud));
    return kit.release();
}

void cloud_kit_destroy(cloud_kit_t* kit) {
    if (kit == nullptr) {
        LOG_WARN("the cloud_kit_t is NULL");
        return;
    }
    dlclose(kit->handle);
    const record_ptr<cloud_kit_t> owned(kit);
}

const cloud_kit_func_t* cloud_kit_get_func(const cloud_kit_t* kit) {
    if (kit == nullptr) {
        LOG_ERROR("the cloud_kit_t is NULL");
        return nullptr;
    }
    return &kit->func;
}
