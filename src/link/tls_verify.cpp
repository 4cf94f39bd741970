#include "link/tls_verify.h"

#include <arpa/inet.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <memory>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include "cloud_svr_codes.h"
#include "link/tls_check.h"
#include "util/log.h"

namespace {

constexpr time_t kClockIsSet = 1577836800;  // 2020 begins: no device of this kind is older
constexpr size_t kNamesSize = 256;

#if OPENSSL_VERSION_NUMBER < 0x10100000L
const unsigned char* ASN1_STRING_get0_data(const ASN1_STRING* text) {
    return text->data;
}
X509* X509_STORE_CTX_get0_cert(const X509_STORE_CTX* store) {
    return store->cert;
}
#endif

struct general_names_deleter_t {
    void operator()(GENERAL_NAMES* names) const { GENERAL_NAMES_free(names); }
};

// Names for the log; what doesn't fit is left out.
struct names_t {
    char text[kNamesSize] = "";
    size_t length = 0;
};

// The peer chose the bytes and isn't trusted: they must not break a line of the log.
void name_add(names_t* names, const char* kind, const void* bytes, size_t size) {
    const size_t left = kNamesSize - names->length;
    const int head =
        snprintf(names->text + names->length, left, "%s%s:", names->length == 0 ? "" : ", ", kind);
    const size_t room = left - std::min(left, static_cast<size_t>(head) + 1);
    if (room == 0) {
        names->text[names->length] = '\0';
        return;
    }
    names->length += static_cast<size_t>(head);
    for (size_t i = 0; i < std::min(size, room); ++i) {
        const unsigned char byte = static_cast<const unsigned char*>(bytes)[i];
        names->text[names->length++] = byte > 0x20 && byte < 0x7F ? static_cast<char>(byte) : '?';
    }
    names->text[names->length] = '\0';
}

void address_add(names_t* names, const ASN1_STRING* bytes) {
    char text[INET6_ADDRSTRLEN] = "?";
    const int family = ASN1_STRING_length(bytes) == 4 ? AF_INET : AF_INET6;
    if (family == AF_INET || ASN1_STRING_length(bytes) == 16) {
        (void)inet_ntop(family, ASN1_STRING_get0_data(bytes), text, sizeof(text));
    }
    name_add(names, "IP", text, strlen(text));
}

void alternatives_add(names_t* names, X509* certificate) {
    const std::unique_ptr<GENERAL_NAMES, general_names_deleter_t> all(static_cast<GENERAL_NAMES*>(
        X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
    for (int i = 0; all != nullptr && i < sk_GENERAL_NAME_num(all.get()); ++i) {
        const GENERAL_NAME* const name = sk_GENERAL_NAME_value(all.get(), i);
        if (name->type == GEN_DNS) {
            name_add(names, "DNS", ASN1_STRING_get0_data(name->d.dNSName),
                     static_cast<size_t>(ASN1_STRING_length(name->d.dNSName)));
        } else if (name->type == GEN_IPADD) {
            address_add(names, name->d.iPAddress);
        }
    }
}

// Those that a check looks at: the alternative names, else the common name.
void names_get(names_t* names, X509* certificate) {
    alternatives_add(names, certificate);
    if (names->length > 0) {
        return;
    }
    char text[kNamesSize / 2];
    const int length = X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName,
                                                 text, sizeof(text));
    if (length >= 0) {
        name_add(names, "CN", text, static_cast<size_t>(length));
    } else {
        (void)snprintf(names->text, sizeof(names->text), "none");
    }
}

void refusal_log(X509_STORE_CTX* store, const link_options_t* options) {
    const int error = X509_STORE_CTX_get_error(store);
    LOG_ERROR("the certificate of the server is refused: %s, depth=%d",
              X509_verify_cert_error_string(error), X509_STORE_CTX_get_error_depth(store));
    names_t names;
    if (X509* const certificate = X509_STORE_CTX_get0_cert(store)) {
        names_get(&names, certificate);
    }
    LOG_ERROR("the name wanted is %s, the names found are %s", options->server_name, names.text);
    if (error == X509_V_ERR_CERT_NOT_YET_VALID && time(nullptr) < kClockIsSet) {
        LOG_ERROR(
            "the clock of the device is not set: this is why the certificate counts as not "
            "yet valid");
    }
}

int on_verified(int is_good, X509_STORE_CTX* store) {
    if (is_good == 0) {
        const auto* const ssl = static_cast<const SSL*>(
            X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
        refusal_log(store, static_cast<const link_options_t*>(SSL_get_app_data(ssl)));
    }
    return is_good;
}

bool name_want(SSL_CTX* ctx, const char* name) {
    X509_VERIFY_PARAM* const wanted = SSL_CTX_get0_param(ctx);
    if (tls_name_kind(name) == TLS_NAME_ADDRESS) {
        return X509_VERIFY_PARAM_set1_ip_asc(wanted, name) == 1;
    }
    X509_VERIFY_PARAM_set_hostflags(wanted, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    return X509_VERIFY_PARAM_set1_host(wanted, name, 0) == 1;
}

}  // namespace

int32_t tls_verify_prepare(SSL_CTX* ctx, const link_options_t* options) {
    if (tls_ca_use(ctx, options) != 0 || tls_certificate_use(ctx, options) != 0) {
        return CLOUD_SVR_E_RESOURCE;
    }
    if (!options->verify) {
        return 0;
    }
    if (!name_want(ctx, options->server_name)) {
        LOG_ERROR("fail to set the name to check, name=%s", options->server_name);
        return CLOUD_SVR_E_RESOURCE;
    }
    // What versions before 1.1.0 of OpenSSL know of, too.
    (void)SSL_CTX_set_options(
        ctx, SSL_OP_NO_SSLv2 | SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1);
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, on_verified);
    return 0;
}

bool tls_verify_name_send(SSL* ssl, const link_options_t* options) {
    if (SSL_set_app_data(ssl, const_cast<link_options_t*>(options)) != 1) {
        return false;
    }
    const char* const name = options->server_name;
    return name == nullptr || tls_name_kind(name) != TLS_NAME_HOST ||
           SSL_set_tlsext_host_name(ssl, name) == 1;
}

void tls_verify_failure_log(const link_options_t* options) {
    const unsigned long code = ERR_peek_error();
    const char* const reason = ERR_reason_error_string(code);
    const int kept = errno;
    if (options->verify && reason != nullptr &&
        ERR_GET_REASON(code) != SSL_R_CERTIFICATE_VERIFY_FAILED) {
        LOG_ERROR("the TLS handshake failed: %s", reason);
    }
    errno = kept;
}
