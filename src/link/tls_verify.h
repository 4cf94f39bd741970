// What the options of the link add to a connection attempt: whom the client takes the server for,
// and how it shows who it is itself.
#pragma once

#include <stdint.h>

#include "link/link_options.h"
#include "link/tls.h"

// Before the attempt's SSL is made: the client's certificate, and with `verify` TLS 1.2 at least
// and the CAs and the name that the server is checked against. A refusal is logged while hands are
// shaken, in plain words.
//   0; -10000, logged.
int32_t tls_verify_prepare(SSL_CTX* ctx, const link_options_t* options);

// Tells the server the name that is wanted of it, where that is a host name, and makes `options`
// known to the check. False when memory is out.
bool tls_verify_name_send(SSL* ssl, const link_options_t* options);

// Logs why hands could not be shaken, unless a refused certificate is why. Leaves errno alone.
void tls_verify_failure_log(const link_options_t* options);
