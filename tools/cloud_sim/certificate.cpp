#include <cstring>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include "cloud_sim/state.h"

namespace {

using extension_t = std::unique_ptr<X509_EXTENSION, releaser_t<X509_EXTENSION_free>>;
using bio_t = std::unique_ptr<BIO, releaser_t<BIO_free_all>>;

constexpr long day_s = 24L * 3600;
constexpr long validity_s = 3650 * day_s;
constexpr long backdated_s = day_s;  // devices with a clock that lags accept it too

struct wanted_t {
    std::string common;
    std::string names = {};  // alternative names; empty: none
    bool is_ca = false;
    long from_s = -backdated_s;  // from now
    long until_s = validity_s;
};

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

bool fill(X509* certificate, EVP_PKEY* key, const wanted_t& wanted) {
    X509_NAME* const name = X509_get_subject_name(certificate);
    const auto* const common = reinterpret_cast<const unsigned char*>(wanted.common.c_str());
    std::uint32_t serial = 0;
    return RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) == 1 &&
           X509_set_version(certificate, X509_VERSION_3) == 1 &&
           ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial >> 1) == 1 &&
           X509_gmtime_adj(X509_getm_notBefore(certificate), wanted.from_s) != nullptr &&
           X509_gmtime_adj(X509_getm_notAfter(certificate), wanted.until_s) != nullptr &&
           X509_set_pubkey(certificate, key) == 1 &&
           X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, common, -1, -1, 0) == 1 &&
           (wanted.names.empty() ||
            extend(certificate, NID_subject_alt_name, wanted.names.c_str())) &&
           (!wanted.is_ca || extend(certificate, NID_basic_constraints, "critical,CA:TRUE"));
}

// Signed by `issuer`; NULL: by itself.
bool issue(identity_t* made, const wanted_t& wanted, const identity_t* issuer) {
    made->key.reset(EVP_EC_gen("P-256"));
    made->certificate.reset(X509_new());
    issuer = issuer != nullptr ? issuer : made;
    return made->key != nullptr && made->certificate != nullptr &&
           fill(made->certificate.get(), made->key.get(), wanted) &&
           X509_set_issuer_name(made->certificate.get(),
                                X509_get_subject_name(issuer->certificate.get())) == 1 &&
           X509_sign(made->certificate.get(), issuer->key.get(), EVP_sha256()) > 0;
}

wanted_t wanted_of(const sim_config_t& config) {
    wanted_t wanted{.common = "cloud_sim", .names = config.names};
    if (wanted.names.empty()) {
        wanted.names = "DNS:localhost,IP:127.0.0.1,IP:" + config.address;
    }
    if (config.made == sim_made_t::expired) {
        wanted.from_s = -2 * day_s;
        wanted.until_s = -day_s;
    } else if (config.made == sim_made_t::not_yet_valid) {
        wanted.from_s = day_s;
    }
    // Its own CA, so that a device may be given it as its CA file.
    wanted.is_ca = config.made == sim_made_t::self_signed;
    return wanted;
}

// A name of its own, so that nobody takes it for the CA of another run.
bool make_ca(identity_t* ca) {
    std::uint32_t number = 0;
    return RAND_bytes(reinterpret_cast<unsigned char*>(&number), sizeof number) == 1 &&
           issue(ca, {.common = "cloud_sim CA " + std::to_string(number), .is_ca = true}, nullptr);
}

bool use(SSL_CTX* context, const identity_t& identity) {
    return SSL_CTX_use_certificate(context, identity.certificate.get()) == 1 &&
           SSL_CTX_use_PrivateKey(context, identity.key.get()) == 1;
}

// The server's certificate by way of another CA, which goes along with it.
bool use_signed(SSL_CTX* context, const sim_config_t& config, const identity_t& ca) {
    identity_t between;
    identity_t server;
    return issue(&between, {.common = "cloud_sim intermediate CA", .is_ca = true}, &ca) &&
           issue(&server, wanted_of(config), &between) && use(context, server) &&
           SSL_CTX_add1_chain_cert(context, between.certificate.get()) == 1;
}

bool use_own(SSL_CTX* context, const sim_config_t& config, identity_t* ca, std::string* error) {
    const bool is_done = config.made == sim_made_t::self_signed
                             ? issue(ca, wanted_of(config), nullptr) && use(context, *ca)
                             : make_ca(ca) && use_signed(context, config, *ca);
    return is_done || fail(error, "cannot make a certificate");
}

bool use_files(SSL_CTX* context, const sim_config_t& config, identity_t* ca, std::string* error) {
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
    return make_ca(ca) || fail(error, "cannot make a CA");
}

// From then on a device without a certificate of the CA is refused.
bool ask_client(SSL_CTX* context, X509* ca, std::string* error) {
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    return (SSL_CTX_add_client_CA(context, ca) == 1 &&
            X509_STORE_add_cert(SSL_CTX_get_cert_store(context), ca) == 1) ||
           fail(error, "cannot ask for a client certificate");
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

std::string to_pem(X509* certificate, EVP_PKEY* key) {
    const bio_t memory(BIO_new(BIO_s_mem()));
    if (memory == nullptr || PEM_write_bio_X509(memory.get(), certificate) != 1 ||
        (key != nullptr &&
         PEM_write_bio_PrivateKey(memory.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1)) {
        return {};
    }
    char* text = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &text);
    return {text, static_cast<std::size_t>(length)};
}

}  // namespace

context_t context_make(sim_t* sim, std::string* error) {
    const sim_config_t& config = sim->config;
    context_t context(SSL_CTX_new(TLS_server_method()));
    if (context == nullptr) {
        fail(error, "cannot make a TLS context");
        return nullptr;
    }
    const bool own = config.certificate_file.empty() && config.key_file.empty();
    if (own ? !use_own(context.get(), config, &sim->ca, error)
            : !use_files(context.get(), config, &sim->ca, error)) {
        return nullptr;
    }
    if (config.ask_client && !ask_client(context.get(), sim->ca.certificate.get(), error)) {
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
    sim->certificate = to_pem(SSL_CTX_get0_certificate(context.get()), nullptr);
    return context;
}

std::string sim_ca(const sim_t* sim) {
    return to_pem(sim->ca.certificate.get(), nullptr);
}

std::string sim_client_certificate(const sim_t* sim, const std::string& name) {
    identity_t client;
    return issue(&client, {.common = name}, &sim->ca)
               ? to_pem(client.certificate.get(), client.key.get())
               : std::string();
}
