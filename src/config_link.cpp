#include "config_link.h"

#include <stdio.h>
#include <strings.h>

#include "cloud_svr_codes.h"
#include "link/tls.h"
#include "link/tls_check.h"
#include "util/log.h"
#include "util/memory.h"

namespace {

constexpr int kExitNoConfig = 255;

// A key, what its line in the log begins with, and the member that it fills: a flag or a text.
struct setting_t {
    const char* name;
    const char* label;
    bool link_options_t::*flag;
    char* link_options_t::*text;
};

constexpr setting_t kSettings[] = {
    {"verify", "verify:", &link_options_t::verify, nullptr},
    {"server_name", "server name:", nullptr, &link_options_t::server_name},
    {"certificate", "client cert:", nullptr, &link_options_t::certificate},
    {"key", "client key:", nullptr, &link_options_t::key},
    {"recover", "recover:", &link_options_t::recover, nullptr},
    {"jitter", "jitter:", &link_options_t::jitter, nullptr},
};

// The first of several errors is the one that is told in the end.
int32_t first(int32_t code, int32_t next) {
    return code != 0 ? code : next;
}

const setting_t* setting_find(const char* name) {
    for (const setting_t& setting : kSettings) {
        if (strcasecmp(setting.name, name) == 0) {
            return &setting;
        }
    }
    return nullptr;
}

int32_t fill_text(char** text, const char* name, const cJSON* item) {
    const char* const value = cJSON_GetStringValue(item);
    if (value == nullptr) {
        LOG_ERROR("link.%s is not a text", name);
        return CLOUD_SVR_E_FORMAT;
    }
    if (value[0] == '\0') {
        LOG_ERROR("link.%s is empty", name);
        return CLOUD_SVR_E_RANGE;
    }
    *text = string_dup(value);
    if (*text == nullptr) {
        LOG_ERROR("fail to load the link.%s", name);
        return CLOUD_SVR_E_RESOURCE;
    }
    return 0;
}

int32_t fill_setting(link_options_t* link, const cJSON* object, const cJSON* item) {
    const setting_t* const setting = setting_find(item->string);
    if (setting == nullptr) {
        LOG_ERROR("link.%s is not known", item->string);
        return CLOUD_SVR_E_FORMAT;
    }
    if (json_get(object, setting->name) != item) {
        LOG_ERROR("link.%s is given twice", setting->name);
        return CLOUD_SVR_E_FORMAT;
    }
    if (setting->flag == nullptr) {
        return fill_text(&(link->*setting->text), setting->name, item);
    }
    if (cJSON_IsBool(item) == 0) {
        LOG_ERROR("link.%s is neither true nor false", setting->name);
        return CLOUD_SVR_E_FORMAT;
    }
    link->*setting->flag = cJSON_IsTrue(item) != 0;
    return 0;
}

int32_t fill_settings(link_options_t* link, const cJSON* object) {
    int32_t code = 0;
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, object) {
        code = first(code, fill_setting(link, object, item));
    }
    return code;
}

int32_t check_pair(const cJSON* object) {
    const bool has_certificate = json_get(object, "certificate") != nullptr;
    const bool has_key = json_get(object, "key") != nullptr;
    if (has_certificate == has_key) {
        return 0;
    }
    LOG_ERROR("link.%s is given without link.%s", has_key ? "key" : "certificate",
              has_key ? "certificate" : "key");
    return CLOUD_SVR_E_FORMAT;
}

int32_t fill_domain(link_options_t* link, const char* domain) {
    link->server_name = string_dup(domain);
    if (link->server_name == nullptr) {
        LOG_ERROR("fail to load the link.server_name");
        return CLOUD_SVR_E_RESOURCE;
    }
    return 0;
}

// With `verify` the name is never missing afterwards.
int32_t fill_name(link_options_t* link, const cJSON* object, const char* domain) {
    const bool is_given = json_get(object, "server_name") != nullptr;
    if (is_given ? link->server_name == nullptr : !link->verify) {
        return 0;  // wrong, which was logged, or not wanted
    }
    const char* const name = is_given ? link->server_name : domain;
    const tls_name_t kind = tls_name_kind(name);
    if (kind == TLS_NAME_NEITHER) {
        LOG_ERROR("%s is neither a host name nor an address, value=%s",
                  is_given ? "link.server_name" : "cloud.domain, which link.verify needs,", name);
        return CLOUD_SVR_E_RANGE;
    }
    if (kind == TLS_NAME_ADDRESS && !link->verify) {
        LOG_ERROR("link.server_name is an address, which only link.verify can use, value=%s", name);
        return CLOUD_SVR_E_RANGE;
    }
    return is_given ? 0 : fill_domain(link, domain);
}

// Nothing that would have to be cleaned up is there yet.
void openssl_lacks_memory() {
    LOG_ERROR("fail to load the configure");
    fflush(stdout);
    _exit(kExitNoConfig);
}

int32_t check_files(link_options_t* link, const char* ca_file) {
    int32_t code = 0;
    if (link->verify && ca_file == nullptr) {
        LOG_ERROR("default.cer_file is not a text, which link.verify needs");
        code = CLOUD_SVR_E_FORMAT;
    }
    link->ca_file = link->verify ? ca_file : nullptr;
    tls_prepare(openssl_lacks_memory);
    return first(code, tls_check(link));
}

int32_t check_only_one(const cJSON* json, const cJSON* object) {
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, json) {
        if (item != object && strcasecmp(item->string, object->string) == 0) {
            LOG_ERROR("link is given twice");
            return CLOUD_SVR_E_FORMAT;
        }
    }
    return 0;
}

}  // namespace

int32_t config_link_fill(config_t* config, const cJSON* json) {
    const cJSON* const object = json_get(json, "link");
    if (object == nullptr) {
        return 0;
    }
    if (cJSON_IsObject(object) == 0) {
        LOG_ERROR("link is not an object");
        return CLOUD_SVR_E_FORMAT;
    }
    config->link = record_new<link_options_t>().release();
    if (config->link == nullptr) {
        LOG_ERROR("fail to malloc, size=%d", static_cast<int>(sizeof(link_options_t)));
        return CLOUD_SVR_E_RESOURCE;
    }
    int32_t code = check_only_one(json, object);
    code = first(code, fill_settings(config->link, object));
    code = first(code, check_pair(object));
    code = first(code, fill_name(config->link, object, config->domain));
    return first(code, check_files(config->link, config->certificate));
}

void config_link_print(const link_options_t* link) {
    if (link == nullptr) {
        return;
    }
    for (const setting_t& setting : kSettings) {
        const char* value = nullptr;
        if (setting.flag != nullptr) {
            value = link->*setting.flag ? "true" : "false";
        } else {
            value = link->*setting.text;
        }
        LOG_DEBUG("%-17s %s", setting.label, value == nullptr ? "null" : value);
    }
}

void config_link_free(link_options_t* link) {
    if (link == nullptr) {
        return;
    }
    for (const setting_t& setting : kSettings) {
        if (setting.text != nullptr) {
            free(link->*setting.text);
        }
    }
    free(link);
}
