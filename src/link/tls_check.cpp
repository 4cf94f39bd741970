#include "link/tls_check.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include "cloud_svr_codes.h"
#include "util/log.h"
#include "util/memory.h"

namespace {

constexpr size_t kNameLimit = 253;
constexpr size_t kLabelLimit = 63;

struct openssl_deleter_t {
    void operator()(BIO* bio) const { BIO_free_all(bio); }
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(SSL_CTX* ctx) const { SSL_CTX_free(ctx); }
};

template <typename T>
using openssl_ptr = std::unique_ptr<T, openssl_deleter_t>;

bool label_is_good(const char* label, size_t length) {
    if (length == 0 || length > kLabelLimit || label[0] == '-' || label[length - 1] == '-') {
        return false;
    }
    for (size_t i = 0; i < length; ++i) {
        if (isalnum(static_cast<unsigned char>(label[i])) == 0 &&
            strchr("-_", label[i]) == nullptr) {
            return false;
        }
    }
    return true;
}

// A name whose last part is a number is an address gone wrong.
bool name_is_host(const char* name) {
    if (strlen(name) > kNameLimit) {
        return false;
    }
    for (;;) {
        const size_t length = strcspn(name, ".");
        if (!label_is_good(name, length)) {
            return false;
        }
        if (name[length] == '\0') {
            return strspn(name, "0123456789") < length;
        }
        name += length + 1;
    }
}

int32_t file_look(const char* setting, const char* path) {
    const descriptor_t file(open(path, O_RDONLY | O_CLOEXEC));
    char byte = 0;
    if (file.fd < 0 || read(file.fd, &byte, 1) < 0) {
        LOG_ERROR("%s can't be read: %s, path=%s", setting, strerror(errno), path);
        return CLOUD_SVR_E_FORMAT;
    }
    return 0;
}

int32_t unusable(const char* setting, const char* what, const char* path) {
    const char* const reason = ERR_reason_error_string(ERR_peek_error());
    LOG_ERROR("%s holds no usable %s: %s, path=%s", setting, what,
              reason == nullptr ? "unknown error" : reason, path);
    ERR_clear_error();
    return CLOUD_SVR_E_FORMAT;
}

// OpenSSL itself would ask on the terminal, and wait. `was_asked` is a bool, or NULL.
int pass_phrase_asked(char* /*buffer*/, int /*size*/, int /*writing*/, void* was_asked) {
    if (was_asked != nullptr) {
        *static_cast<bool*>(was_asked) = true;
    }
    return -1;
}

int32_t ca_use(SSL_CTX* ctx, const char* setting, const char* path) {
    return SSL_CTX_load_verify_locations(ctx, path, nullptr) == 1
               ? 0
               : unusable(setting, "certificate", path);
}

int32_t chain_use(SSL_CTX* ctx, const char* setting, const char* path) {
    SSL_CTX_set_default_passwd_cb(ctx, pass_phrase_asked);
    return SSL_CTX_use_certificate_chain_file(ctx, path) == 1
               ? 0
               : unusable(setting, "certificate", path);
}

int32_t key_use(SSL_CTX* ctx, const char* setting, const char* path) {
    bool was_asked = false;
    const openssl_ptr<BIO> file(BIO_new_file(path, "r"));
    const openssl_ptr<EVP_PKEY> key(
        file == nullptr
            ? nullptr
            : PEM_read_bio_PrivateKey(file.get(), nullptr, pass_phrase_asked, &was_asked));
    if (key == nullptr) {
        return unusable(setting, was_asked ? "private key without a pass phrase" : "private key",
                        path);
    }
    X509* const certificate = SSL_CTX_get0_certificate(ctx);
    if (certificate == nullptr) {
        return 0;  // its own fault is what was logged
    }
    if (X509_check_private_key(certificate, key.get()) != 1) {
        LOG_ERROR("%s does not fit link.certificate, path=%s", setting, path);
        ERR_clear_error();
        return CLOUD_SVR_E_RANGE;
    }
    return SSL_CTX_use_PrivateKey(ctx, key.get()) == 1 ? 0 : unusable(setting, "private key", path);
}

// Has `use` load the file that a setting names, if it names one.
int32_t file_use(SSL_CTX* ctx, const char* setting, const char* path,
                 int32_t (*use)(SSL_CTX* ctx, const char* setting, const char* path)) {
    if (path == nullptr) {
        return 0;
    }
    const int32_t code = file_look(setting, path);
    ERR_clear_error();
    return code != 0 ? code : use(ctx, setting, path);
}

}  // namespace

tls_name_t tls_name_kind(const char* name) {
    struct in6_addr address;
    if (inet_pton(AF_INET, name, &address) == 1 || inet_pton(AF_INET6, name, &address) == 1) {
        return TLS_NAME_ADDRESS;
    }
    return name_is_host(name) ? TLS_NAME_HOST : TLS_NAME_NEITHER;
}

int32_t tls_ca_use(SSL_CTX* ctx, const link_options_t* options) {
    return file_use(ctx, "default.cer_file", options->ca_file, ca_use);
}

int32_t tls_certificate_use(SSL_CTX* ctx, const link_options_t* options) {
    const int32_t of_chain = file_use(ctx, "link.certificate", options->certificate, chain_use);
    const int32_t of_key = file_use(ctx, "link.key", options->key, key_use);
    return of_chain != 0 ? of_chain : of_key;
}

int32_t tls_check(const link_options_t* options) {
    const openssl_ptr<SSL_CTX> ctx(SSL_CTX_new(SSLv23_client_method()));
    if (ctx == nullptr) {
        LOG_ERROR("fail to create a new SSL_CTX");
        return CLOUD_SVR_E_RESOURCE;
    }
    const int32_t of_ca = tls_ca_use(ctx.get(), options);
    const int32_t of_certificate = tls_certificate_use(ctx.get(), options);
    return of_ca != 0 ? of_ca : of_certificate;
}
