#include "config.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cloud_svr_codes.h"
#include "config_link.h"
#include "util/json.h"
#include "util/log.h"
#include "util/memory.h"

namespace {

constexpr char kSample[] =
    "{\n"
    "\t\"cloud\":{\n"
    "\t\t\"domain\":\"cloud.example.com\",\n"
    "\t\t\"port\":50443\n"
    "\t},\n"
    "\t\"default\":{\n"
    "\t\t\"heartbeat_interval_ms\":240000,\n"
    "\t\t\"request_timeout_ms\":5000,\n"
    "\t\t\"max_message_number\":65535,\n"
    "\t\t\"max_client_number\":20,\n"
    "\t\t\"cer_file\":\"2048_newroot.cer\"\n"
    "\t},\n"
    "\t\"module\":{\n"
    "\t\t\"cloud_kit\":\"libcloud-kit.so\"\n"
    "\t}\n"
    "}\n";

struct config_deleter_t {
    void operator()(config_t* config) const {
        free(config->certificate);
        free(config->cloud_kit);
        free(config->domain);
        config_link_free(config->link);
        free(config);
    }
};

using config_ptr = std::unique_ptr<config_t, config_deleter_t>;

void usage_print(const char* program) {
    printf("%s -c <path>\n", program);
    printf("\t-c <path>\t the configure path.\n");
    printf("or\n");
    printf("%s\n", program);
    printf("\tto load the default configure \"config.cfg\" in the current directory.\n");
}

// The path that the command line names, borrowed; NULL when it names none.
const char* path_get(int argc, char** argv) {
    if (argc == 1) {
        return "config.cfg";
    }
    const char* path = nullptr;
    int option = 0;
    while ((option = getopt(argc, argv, "c:")) != -1) {
        path = option == 'c' ? optarg : path;
    }
    return path;
}

int32_t fill_cloud(config_t* config, const cJSON* cloud) {
    if (json_get(cloud, "domain") == nullptr) {
        LOG_ERROR("fail to load the cloud.domain");
        return CLOUD_SVR_E_FORMAT;
    }
    config->domain = string_dup(json_get_string(cloud, "domain"));
    if (config->domain == nullptr) {
        LOG_ERROR("fail to load the cloud.domain");
        return CLOUD_SVR_E_RESOURCE;
    }
    if (json_get(cloud, "port") == nullptr) {
        LOG_ERROR("fail to load the cloud.port");
        return CLOUD_SVR_E_FORMAT;
    }
    config->port = json_get_int(cloud, "port");
    return 0;
}

int32_t fill_default(config_t* config, const cJSON* settings) {
    if (json_get(settings, "cer_file") == nullptr) {
        LOG_ERROR("fail to load the default.cer_file");
        return CLOUD_SVR_E_FORMAT;
    }
    // A certificate that is no text is let through here; the TLS socket refuses to start with it.
    config->certificate = string_dup(json_get_string(settings, "cer_file"));
    if (config->domain == nullptr) {
        LOG_ERROR("fail to load the default.cer_file");
        return CLOUD_SVR_E_RESOURCE;
    }
    if (json_get(settings, "heartbeat_interval_ms") == nullptr) {
        LOG_ERROR("fail to load the default.heartbeat_interval_ms");
        return CLOUD_SVR_E_FORMAT;
    }
    if (json_get(settings, "request_timeout_ms") == nullptr) {
        LOG_ERROR("fail to load the default.request_timeout_ms");
        return CLOUD_SVR_E_FORMAT;
    }
    if (json_get(settings, "max_message_number") == nullptr) {
        LOG_ERROR("fail to load the default.max_message_number");
        return CLOUD_SVR_E_FORMAT;
    }
    if (json_get(settings, "max_client_number") == nullptr) {
        LOG_ERROR("fail to load the default.max_client_number");
        return CLOUD_SVR_E_FORMAT;
    }
    config->heartbeat_interval_ms = json_get_int(settings, "heartbeat_interval_ms");
    config->request_timeout_ms = json_get_int(settings, "request_timeout_ms");
    config->max_message_number = json_get_int(settings, "max_message_number");
    config->max_client_number = json_get_int(settings, "max_client_number");
    config->mem_limit_kb = json_get_int(settings, "mem_limit_kb");
    return 0;
}

int32_t fill_module(config_t* config, const cJSON* module) {
    if (json_get(module, "cloud_kit") == nullptr) {
        return 0;
    }
    config->cloud_kit = string_dup(json_get_string(module, "cloud_kit"));
    if (config->cloud_kit == nullptr) {
        LOG_ERROR("fail to load the module.cloud_kit");
        return CLOUD_SVR_E_RESOURCE;
    }
    return 0;
}

int32_t fill_config_with_json(config_t* config, const cJSON* json) {
    const cJSON* const cloud = json_get(json, "cloud");
    if (cloud == nullptr) {
        LOG_ERROR("fail to load the configure, node \"cloud\" does not exist");
        return CLOUD_SVR_E_FORMAT;
    }
    int32_t code = fill_cloud(config, cloud);
    if (code != 0) {
        return code;
    }
    const cJSON* const settings = json_get(json, "default");
    if (settings == nullptr) {
        LOG_ERROR("fail to load the configure, node \"default\" does not exist");
        return CLOUD_SVR_E_FORMAT;
    }
    code = fill_default(config, settings);
    return code != 0 ? code : fill_module(config, json_get(json, "module"));
}

int32_t check_config(const config_t* config) {
    if (config->domain == nullptr || config->domain[0] == '\0') {
        LOG_ERROR("cloud.domain is NULL or empty");
        return CLOUD_SVR_E_ARGUMENT;
    }
    if (config->port < 1 || config->port > 65535) {
        LOG_ERROR("cloud.port is out of range, port=%d", config->port);
        return CLOUD_SVR_E_RANGE;
    }
    if (config->heartbeat_interval_ms <= 0) {
        LOG_ERROR("default.heartbeat_interval_ms is out of range, value=%d",
                  config->heartbeat_interval_ms);
        return CLOUD_SVR_E_RANGE;
    }
    if (config->request_timeout_ms <= 0) {
        LOG_ERROR("default.request_timeout_ms is out of range, value=%d",
                  config->request_timeout_ms);
        return CLOUD_SVR_E_RANGE;
    }
    if (config->max_message_number <= 0) {
        LOG_ERROR("default.max_message_number is out of range, value=%d",
                  config->max_message_number);
        return CLOUD_SVR_E_RANGE;
    }
    if (config->max_client_number <= 0) {
        LOG_ERROR("default.max_client_number is out of range, value=%d", config->max_client_number);
        return CLOUD_SVR_E_RANGE;
    }
    return 0;
}

config_ptr load_config_from_buffer(const char* buffer) {
    json_ptr json(cJSON_Parse(buffer));
    if (json == nullptr) {
        LOG_ERROR("fail to parse the configure");
        return nullptr;
    }
    config_ptr config(static_cast<config_t*>(calloc(1, sizeof(config_t))));
    if (config == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(sizeof(config_t)));
        return nullptr;
    }
    int32_t code = fill_config_with_json(config.get(), json.get());
    code = code != 0 ? code : check_config(config.get());
    code = code != 0 ? code : config_link_fill(config.get(), json.get());
    json.reset();
    if (code != 0) {
        LOG_ERROR("fail to load the configure, error=%d", code);
        printf("default config:\n%s", kSample);
        return nullptr;
    }
    return config;
}

// The size that stat tells; a file that it can't tell of has none and fails to open next.
size_t file_size(const char* path) {
    struct stat status = {};
    return stat(path, &status) == 0 && status.st_size > 0 ? static_cast<size_t>(status.st_size) : 0;
}

config_ptr load_config_from_path(const char* path) {
    const size_t size = file_size(path);
    const text_ptr buffer(static_cast<char*>(calloc(1, size + 1)));
    if (buffer == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(size + 1));
        return nullptr;
    }
    const descriptor_t file(open(path, O_RDONLY | O_CLOEXEC));
    if (file.fd < 0) {
        LOG_ERROR("fail to open the configure file, error=%d, path=%s", errno, path);
        return nullptr;
    }
    if (read(file.fd, buffer.get(), size) < 0) {
        LOG_ERROR("fail to read the configure file, error=%d, path=%s", errno, path);
        return nullptr;
    }
    return load_config_from_buffer(buffer.get());
}

void config_print(const config_t* config) {
    LOG_DEBUG("certificate:      %s",
              config->certificate == nullptr ? "null" : config->certificate);
    LOG_DEBUG("domain:           %s", config->domain);
    LOG_DEBUG("port:             %d", config->port);
    LOG_DEBUG("heartbeat(ms):    %d", config->heartbeat_interval_ms);
    LOG_DEBUG("time out(ms):     %d", config->request_timeout_ms);
    LOG_DEBUG("maximum message:  %d", config->max_message_number);
    LOG_DEBUG("maximum client:   %d", config->max_client_number);
    LOG_DEBUG("memory limit(kb): %d", config->mem_limit_kb);
    LOG_DEBUG("cloud-kit:        %s", config->cloud_kit == nullptr ? "null" : config->cloud_kit);
    config_link_print(config->link);
}

}  // namespace

config_t* config_load(int argc, char** argv) {
    LOG_DEBUG("begin to load the configure...");
    const char* const path = path_get(argc, argv);
    if (path == nullptr) {
        usage_print(argv[0]);
        return nullptr;
    }
    config_ptr config = load_config_from_path(path);
    if (config == nullptr) {
        LOG_ERROR("fail to load the configure");
        return nullptr;
    }
    config_print(config.get());
    LOG_DEBUG("end to load the configure...");
    return config.release();
}

void config_free(config_t* config) {
    if (config == nullptr) {
        LOG_WARN("the config_t is NULL");
        return;
    }
    LOG_DEBUG("begin to free the configure...");
    config_ptr(config).reset();
    LOG_DEBUG("end to free the configure...");
}
