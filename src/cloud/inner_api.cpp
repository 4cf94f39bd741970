#include "cloud/inner_api.h"

#include <stdlib.h>

#include "cloud/session.h"
#include "cloud_svr_codes.h"
#include "ipc/local_client.h"
#include "util/json.h"
#include "util/log.h"
#include "util/memory.h"

namespace {

void callback_init_with_config(inner_api_t* api, const config_t* config) {
    if (config->cloud_kit == nullptr) {
        LOG_DEBUG("the path of cloud-kit.so is NULL");
        return;
    }
    if (config->cloud_kit[0] == '\0') {
        LOG_DEBUG("the path of cloud-kit.so is empty");
        return;
    }
    api->cloud_kit = cloud_kit_init(config->cloud_kit);
    if (api->cloud_kit == nullptr) {
        LOG_ERROR("fail to load the cloud-kit.so");
        return;
    }
    api->kit_loaded = 1;
}

bool parts_init(inner_api_t* api, const config_t* config) {
    api->msg_id_pool = msg_id_pool_init(config->max_message_number);
    if (api->msg_id_pool == nullptr) {
        LOG_ERROR("fail to initialize the message id pool");
        return false;
    }
    api->heartbeat_interval_ms = config->heartbeat_interval_ms;
    api->request_timeout_ms = config->request_timeout_ms;
    api->link = config->link;
    api->response_list = response_list_init(config->request_timeout_ms);
    if (api->response_list == nullptr) {
        LOG_ERROR("fail to initialize the response list");
        return false;
    }
    api->task_pool = task_pool_init();
    if (api->task_pool == nullptr) {
        LOG_ERROR("fail to initialize the task pool");
        return false;
    }
    api->ssl_socket = ssl_socket_init(config->certificate, config->link);
    if (api->ssl_socket == nullptr) {
        LOG_ERROR("fail to initialize the SSL socket");
        return false;
    }
    return true;
}

bool record_init(inner_api_t* api, const config_t* config) {
    {
        const mutex_lock_t held(api->lock);
        inner_state_set_unsafe(api, INNER_API_AVAILABLE);
    }
    api->domain = string_dup(config->domain);
    if (api->domain == nullptr) {
        LOG_ERROR("fail to copy the domain, domain=%s", config->domain);
        return false;
    }
    api->port = config->port;
    callback_init_with_config(api, config);
    return parts_init(api, config);
}

// Everything that the record owns, which may be partly built; its lock is free.
void parts_destroy(inner_api_t* api) {
    task_pool_destroy(api->task_pool);
    if (api->ssl_socket != nullptr) {
        (void)ssl_socket_disconnect(api->ssl_socket);
        ssl_socket_destroy(api->ssl_socket);
    }
    if (api->msg_id_pool != nullptr) {
        msg_id_pool_destroy(api->msg_id_pool);
    }
    if (api->response_list != nullptr) {
        response_list_destroy(api->response_list);
    }
    if (api->kit_loaded == 1) {
        LOG_DEBUG("unload the cloud-kit.so");
        cloud_kit_destroy(api->cloud_kit);
    }
    free(api->domain);
    {
        const mutex_lock_t held(api->lock);
        ip_list_destroy(api->ip_list);
    }
    const mutex_lock_t held(api->hello_cloud_lock);
    free(api->request_of_hello_cloud);
}

bool is_connected_or_stopped(void* arg) {
    const auto* const api = static_cast<const inner_api_t*>(arg);
    return inner_is_connected(api) || api->stopping;
}

// 0 when there is a connection, or one could be made on the way because the flag asks for it.
int32_t connection_need(inner_api_t* api, int32_t timeout_ms, int32_t flag) {
    if ((api->state & INNER_API_CONNECTED) != 0) {
        return 0;
    }
    const bool connected = flag != 0 && session_connect(api, timeout_ms) == 0;
    session_start_reconnect(api, 0, 0);
    if (connected) {
        return 0;
    }
    LOG_ERROR("the connection is out");
    return CLOUD_SVR_E_NO_CONNECTION;
}

int32_t check_request(const cJSON* request) {
    if (json_get_string(request, "method") == nullptr) {
        LOG_ERROR("fail to get the method from the request");
        return CLOUD_SVR_E_METHOD;
    }
    return 0;
}

// One attempt: the message id, or a negative code.
int32_t send_request_async(inner_api_t* api, int32_t client, const char* text, int32_t timeout_ms) {
    const json_ptr request(cJSON_Parse(text));
    if (request == nullptr) {
        LOG_ERROR("fail to parse the request");
        return CLOUD_SVR_E_FORMAT;
    }
    int32_t code = check_request(request.get());
    if (code != 0) {
        LOG_ERROR("fail to check the request, error=%d", code);
        return code;
    }
    const msg_data_t data = {monotonic_ms_get(), timeout_ms, client};
    const int32_t id = msg_id_get_from_idle(api->msg_id_pool, &data);
    if (id < 0) {
        LOG_ERROR("fail to generic the message id, error=%d", id);
        return id;
    }
    code = inner_send_with_id(api, request.get(), id);
    if (code != 0) {
        LOG_ERROR("fail to send the request, error=%d", code);
        msg_id_put_to_idle(api->msg_id_pool, id);
        return code;
    }
    api->last_active_ms = monotonic_ms_get();
    return id;
}

void hello_cloud_wake(inner_api_t* api) {
    const mutex_lock_t held(api->hello_cloud_lock);
    api->hello_cloud_arrived.wake_all();
}

// Whether the client may register; decided under the same hold of the lock that stores it.
int32_t registration_check_unsafe(const inner_api_t* api, int32_t client) REQUIRES(api->lock) {
    if (api->kit_loaded == 1) {
        LOG_WARN("cloud-kit.so is already existing");
        return CLOUD_SVR_E_REGISTRATION;
    }
    if (api->client_fd != 0 && api->client_fd != client) {
        LOG_ERROR("the registered client is already existing");
        return CLOUD_SVR_E_REGISTRATION;
    }
    // A client that has left already would stay registered for ever: its close came before.
    return local_client_is_open(client) ? 0 : CLOUD_SVR_E_LOCAL_SEND;
}

int32_t registration_store(inner_api_t* api, int32_t client, int32_t hello_cloud) {
    const mutex_lock_t held(api->lock);
    const int32_t code = registration_check_unsafe(api, client);
    if (code != 0) {
        return code;
    }
    LOG_DEBUG("register client: %d, helloCloud: %d", local_client_fd(client), hello_cloud);
    api->client_hello_cloud = hello_cloud;
    api->client_fd = client;
    return 0;
}

}  // namespace

inner_api_t* inner_api_init(const config_t* config) {
    if (config == nullptr) {
        LOG_ERROR("the config_t is NULL");
        return nullptr;
    }
    LOG_DEBUG("begin to initialize the API...");
    inner_api_t* const api = record_new<inner_api_t>().release();
    if (api == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(sizeof(inner_api_t)));
        return nullptr;
    }
    if (!record_init(api, config)) {
        inner_api_destroy(api);
        return nullptr;
    }
    session_start_reconnect(api, 0, 0);
    LOG_DEBUG("end to initialize the API...");
    return api;
}

void inner_api_stop(inner_api_t* api) {
    if (api == nullptr) {
        return;
    }
    // What a connection attempt waits for ends first, so that `lock` becomes free soon.
    api->stopping = true;
    if (api->ssl_socket != nullptr) {
        ssl_socket_interrupt(api->ssl_socket);
    }
    if (api->msg_id_pool != nullptr) {
        msg_id_pool_close(api->msg_id_pool);
    }
    if (api->response_list != nullptr) {
        response_list_close(api->response_list);
    }
    hello_cloud_wake(api);
    event_announce(&api->changed);
    const mutex_lock_t held(api->lock);
    inner_state_clear_unsafe(api, ~0U);
}

void inner_api_destroy(inner_api_t* api) {
    if (api == nullptr) {
        LOG_WARN("the inner_api_t is NULL");
        return;
    }
    LOG_DEBUG("begin to destroy the API...");
    inner_api_stop(api);
    parts_destroy(api);
    record_ptr<inner_api_t>(api).reset();
    LOG_DEBUG("end to destroy the API...");
}

int32_t inner_api_reconnect(inner_api_t* api) {
    if (api == nullptr) {
        LOG_ERROR("the inner_api_t is NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    session_start_reconnect(api, 1, 0);
    return 0;
}

int32_t inner_send_request(inner_api_t* api, int32_t client, const char* request,
                           int32_t timeout_ms, int32_t flag) {
    if (api == nullptr || client == 0 || request == nullptr) {
        LOG_ERROR("the inner_api,  file description of the client or request is NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    const int32_t timeout = timeout_ms < 0 ? api->request_timeout_ms : timeout_ms;
    int32_t code = connection_need(api, timeout, flag);
    if (code != 0) {
        return code;
    }
    const uint32_t connection = ssl_socket_get_connection(api->ssl_socket);
    code = send_request_async(api, client, request, timeout);
    if (code == CLOUD_SVR_E_NO_CONNECTION && !inner_is_lost(api)) {
        code = send_request_async(api, client, request, timeout);
    }
    if (code != CLOUD_SVR_E_NO_CONNECTION) {
        return code;
    }
    LOG_ERROR("fail to send the request, error=%d", code);
    LOG_DEBUG("reconnect immediately");
    session_replace(api, connection);
    // The result of connecting stands for the request's, which is not sent again.
    return flag != 0 ? session_connect(api, timeout) : code;
}

int32_t inner_register_callback(inner_api_t* api, int32_t client, int32_t hello_cloud) {
    if (api == nullptr || client == 0) {
        LOG_ERROR("the inner_api or client's file description is NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    const int32_t code = registration_store(api, client, hello_cloud);
    if (code != 0) {
        return code;
    }
    session_start_reconnect(api, 0, 0);
    const deadline_t deadline = deadline_in(api->request_timeout_ms);
    (void)event_wait(&api->changed, deadline, is_connected_or_stopped, api);
    return inner_is_connected(api) ? 0 : CLOUD_SVR_E_NO_CONNECTION;
}

int32_t inner_unregister_callback(inner_api_t* api, int32_t client) {
    if (api == nullptr || client == 0) {
        LOG_ERROR("the inner_api or client's file description is NULL");
        return CLOUD_SVR_E_ARGUMENT;
    }
    const mutex_lock_t held(api->lock);
    if (api->kit_loaded == 0 && api->client_fd == client) {
        LOG_DEBUG("unregister client: %d", local_client_fd(client));
        api->client_fd = 0;
        api->client_hello_cloud = 0;
    }
    return 0;
}

void inner_set_response(inner_api_t* api, int32_t id, const char* response) {
    if (api == nullptr || response == nullptr) {
        LOG_ERROR("the inner_api or response is NULL");
        return;
    }
    const int32_t code = response_data_set_response(api->response_list, id, response);
    if (code != 0) {
        LOG_ERROR("fail to set the response into the response list, error=%d", code);
    }
}

void inner_set_request_of_hello_cloud(inner_api_t* api, const char* request) {
    if (api == nullptr || request == nullptr) {
        LOG_ERROR("the inner_api or the request is NULL");
        return;
    }
    const mutex_lock_t held(api->hello_cloud_lock);
    // A text that nobody has taken is overwritten, not freed.
    api->request_of_hello_cloud = string_dup(request);
    api->hello_cloud_arrived.wake_all();
}
