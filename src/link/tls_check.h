// The files and the name that the options of the link consist of: whether they can be used. The
// settings are refused by the same functions that each attempt loads the files with.
#pragma once

#include <stdint.h>

#include "link/link_options.h"

typedef struct ssl_ctx_st SSL_CTX;

enum tls_name_t {
    TLS_NAME_HOST,     // a host name: letters, digits, '-' and '_' between dots
    TLS_NAME_ADDRESS,  // an IPv4 or IPv6 address
    TLS_NAME_NEITHER,
};

tls_name_t tls_name_kind(const char* name);

// Each loads files into `ctx`, as far as the options name any, and logs everything that is wrong
// with them by the names of their settings.
//   0; -10100 for a file that can't be read or doesn't hold what it must; -20106 for a key that
//   doesn't fit its certificate.
int32_t tls_ca_use(SSL_CTX* ctx, const link_options_t* options);
int32_t tls_certificate_use(SSL_CTX* ctx, const link_options_t* options);

// Both, with nothing kept; -10000 when memory is out. tls_prepare must have been called.
int32_t tls_check(const link_options_t* options);
