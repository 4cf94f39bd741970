// OpenSSL's own set-up, while the process starts.
#include <stdlib.h>

#include <openssl/crypto.h>
#include <openssl/ssl.h>

#include "link/tls.h"

#if OPENSSL_VERSION_NUMBER >= 0x30000000L
#include <openssl/decoder.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#endif

namespace {

#if OPENSSL_VERSION_NUMBER >= 0x10101000L

// Not NULL while OpenSSL is set up. No other thread exists then.
void (*g_no_memory)() = nullptr;

void* checked(void* memory, size_t size) {
    if (memory == nullptr && size > 0 && g_no_memory != nullptr) {
        g_no_memory();
    }
    return memory;
}

void* memory_get(size_t size, const char* /*file*/, int /*line*/) {
    return checked(malloc(size), size);
}

void* memory_resize(void* memory, size_t size, const char* /*file*/, int /*line*/) {
    return checked(realloc(memory, size), size);
}

void memory_free(void* memory, const char* /*file*/, int /*line*/) {
    free(memory);
}

void memory_watch(void (*no_memory)()) {
    g_no_memory = no_memory;
    (void)CRYPTO_set_mem_functions(memory_get, memory_resize, memory_free);
    // A task's thread may still be ending when the process exits: OpenSSL must not clean up under
    // it.
    (void)OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
}

void memory_watch_end() {
    g_no_memory = nullptr;
}

#else

void memory_watch(void (*)()) {}
void memory_watch_end() {}

#endif

#if OPENSSL_VERSION_NUMBER >= 0x30000000L

// The first fetch of a kind sets up all of that kind; whether this one exists doesn't matter.
void methods_fetch() {
    EVP_MD_free(EVP_MD_fetch(nullptr, "SHA2-256", nullptr));
    EVP_CIPHER_free(EVP_CIPHER_fetch(nullptr, "AES-128-GCM", nullptr));
    EVP_MAC_free(EVP_MAC_fetch(nullptr, "HMAC", nullptr));
    EVP_KDF_free(EVP_KDF_fetch(nullptr, "HKDF", nullptr));
    EVP_RAND_free(EVP_RAND_fetch(nullptr, "CTR-DRBG", nullptr));
    EVP_KEYMGMT_free(EVP_KEYMGMT_fetch(nullptr, "EC", nullptr));
    EVP_KEYEXCH_free(EVP_KEYEXCH_fetch(nullptr, "ECDH", nullptr));
    EVP_SIGNATURE_free(EVP_SIGNATURE_fetch(nullptr, "ECDSA", nullptr));
    EVP_ASYM_CIPHER_free(EVP_ASYM_CIPHER_fetch(nullptr, "RSA", nullptr));
    OSSL_DECODER_free(OSSL_DECODER_fetch(nullptr, "EC", nullptr));
}

#else

void methods_fetch() {}

#endif

}  // namespace

void tls_prepare(void (*no_memory)()) {
    memory_watch(no_memory);
    SSL_library_init();
    SSL_load_error_strings();
    methods_fetch();
    SSL_CTX* const ctx = SSL_CTX_new(SSLv23_client_method());
    SSL_free(ctx == nullptr ? nullptr : SSL_new(ctx));
    SSL_CTX_free(ctx);
    memory_watch_end();
}
