#include <cstring>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "cloud_sim/state.h"

namespace {

using private_key_t = std::unique_ptr<EVP_PKEY, releaser_t<EVP_PKEY_free>>;
using x509_t = std::unique_ptr<X509, releaser_t<X509_free>>;
using extension_t = std::unique_ptr<X509_EXTENSION, releaser_t<X509_EXTENSION_free>>;
using bio_t = std::unique_ptr<BIO, releaser_t<BIO_free_all>>;

constexpr long validity_s = 3650L * 24 * 3600;
constexpr long backdated_s = 24L * 3600;  // devices with a clock that lags accept it too

bool fail(std::string* error, const std::string& what) {
    const unsigned long code = ERR_get_error();
    const char* const reason = ERR_SYSTEM_ERROR(code) ? std::strerror(ERR_GET_REASON(code))
                                                      : ERR_reason_error_string(code);
    *error = code != 0 && reason != nullptr ? what + ": " + reason : what;
    ERR_clear_error();
    return false;
}

bool extend(X509* certificate, int nid, const char* value) {
    const extension_t extension(X509V3_EXT_conf_nid(nullptr, nullptr, nid, value));
    return extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1;
}

bool fill(X509* certificate, EVP_PKEY* key, const std::string& address) {
    X509_NAME* const name = X509_get_subject_name(certificate);
    const auto* const common = reinterpret_cast<const unsigned char*>("cloud_sim");
    const std::string names = "DNS:localhost,IP:127.0.0.1,IP:" + address;
    // Its own CA, so that a device may be given it as its CA file.
    return X509_set_version(certificate, X509_VERSION_3) == 1 &&
           ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1) == 1 &&
           X509_gmtime_adj(X509_getm_notBefore(certificate), -backdated_s) != nullptr &&
           X509_gmtime_adj(X509_getm_notAfter(certificate), validity_s) != nullptr &&
           X509_set_pubkey(certificate, key) == 1 &&
           X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, common, -1, -1, 0) == 1 &&
           X509_set_issuer_name(certificate, name) == 1 &&
           extend(certificate, NID_subject_alt_name, names.c_str()) &&
           extend(certificate, NID_basic_constraints, "critical,CA:TRUE") &&
           X509_sign(certificate, key, EVP_sha256()) > 0;
}

bool use_own(SSL_CTX* context, const sim_config_t& config, std::string* error) {
    const private_key_t key(EVP_EC_gen("P-256"));
    const x509_t certificate(X509_new());
    if (key == nullptr || certificate == nullptr ||
        !fill(certificate.get(), key.get(), config.address) ||
        SSL_CTX_use_certificate(context, certificate.get()) != 1 ||
        SSL_CTX_use_PrivateKey(context, key.get()) != 1) {
        return fail(error, "cannot make a certificate");
    }
    return true;
}

bool use_files(SSL_CTX* context, const sim_config_t& config, std::string* error) {
    if (config.certificate_file.empty() || config.key_file.empty()) {
        return fail(error, "a certificate and its key go together");
    }
    if (SSL_CTX_use_certificate_chain_file(context, config.certificate_file.c_str()) != 1) {
        return fail(error, "cannot use the certificate " + config.certificate_file);
    }
    // This also finds a key that isn't the certificate's.
    if (SSL_CTX_use_PrivateKey_file(context, config.key_file.c_str(), SSL_FILETYPE_PEM) != 1) {
        return fail(error, "cannot use the key " + config.key_file);
    }
    return true;
}

bool limit_version(SSL_CTX* context, int max_tls) {
    switch (max_tls) {
        case 0:
            return true;
        case 10:
        case 11:  // old signatures are below the default security level
            SSL_CTX_set_security_level(context, 0);
            return SSL_CTX_set_min_proto_version(context, TLS1_VERSION) == 1 &&
                   SSL_CTX_set_max_proto_version(
                       context, max_tls == 10 ? TLS1_VERSION : TLS1_1_VERSION) == 1;
        case 12:
            return SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION) == 1;
        case 13:
            return SSL_CTX_set_max_proto_version(context, TLS1_3_VERSION) == 1;
        default:
            return false;
    }
}

std::string to_pem(X509* certificate) {
    const bio_t memory(BIO_new(BIO_s_mem()));
    if (memory == nullptr || PEM_write_bio_X509(memory.get(), certificate) != 1) {
        return {};
    }
    char* text = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &text);
    return {text, static_cast<std::size_t>(length)};
}

}  // namespace

context_t context_make(const sim_config_t& config, std::string* certificate, std::string* error) {
    context_t context(SSL_CTX_new(TLS_server_method()));
    if (context == nullptr) {
        fail(error, "cannot make a TLS context");
        return nullptr;
    }
    const bool own = config.certificate_file.empty() && config.key_file.empty();
    if (own ? !use_own(context.get(), config, error) : !use_files(context.get(), config, error)) {
        return nullptr;
    }
    if (!limit_version(context.get(), config.max_tls)) {
        fail(error, "no such TLS version");
        return nullptr;
    }
    // Output buffers grow between the attempts to write them, and several records are read at once.
    SSL_CTX_set_mode(context.get(),
                     SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_read_ahead(context.get(), 1);
    *certificate = to_pem(SSL_CTX_get0_certificate(context.get()));
    return context;
}
