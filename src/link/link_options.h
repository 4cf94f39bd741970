// What the optional object "link" of the configuration asks of the connection to the cloud
// (cloud_svr.cfg(5)). Where there is no such object, a NULL pointer stands for it and nothing of
// this applies.
#pragma once

// Built with the settings, only read afterwards, by any thread; the texts are its own.
struct link_options_t {
    bool verify;        // the server has to prove that it is `server_name`
    bool recover;       // a lost connection is acted on when it is noticed
    bool jitter;        // each wait between attempts is drawn from the second half of its delay
    char* server_name;  // NULL when the file names none: the cloud's domain counts then
    char* certificate;  // path of the client's certificate chain (PEM); NULL together with `key`
    char* key;          // path of its private key (PEM)
};
