// What the optional object "link" of the configuration asks of the connection to the cloud
// (cloud_svr.cfg(5)). Where there is no such object, a NULL pointer stands for it and nothing of
// this applies.
#pragma once

// Built with the settings, only read afterwards, by any thread; the texts but for `ca_file` are its
// own.
struct link_options_t {
    bool verify;          // the server has to prove that it is `server_name`
    bool recover;         // a lost connection is acted on when it is noticed
    bool jitter;          // each wait between attempts is drawn from the second half of its delay
    char* server_name;    // never NULL with `verify`: the cloud's domain when the file names none
    char* certificate;    // path of the client's certificate chain (PEM); NULL together with `key`
    char* key;            // path of its private key (PEM)
    const char* ca_file;  // the settings' default.cer_file with `verify`, else NULL
};

inline bool link_recovers(const link_options_t* options) {
    return options != nullptr && options->recover;
}

inline bool link_draws(const link_options_t* options) {
    return options != nullptr && options->jitter;
}
