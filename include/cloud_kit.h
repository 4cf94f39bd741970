/* The interface of a cloud kit: a shared library (module.cloud_kit in the configuration) that
 * stands in for the registered local client. It answers what the cloud asks the device and takes
 * part in the helloCloud handshake. See cloud_kit(3); examples/kit is one.
 *
 * Every text is a NUL-terminated JSON text. Results are ignored: an out-parameter that is still
 * NULL means failure. A text handed out through an out-parameter comes from malloc and is the
 * daemon's from then on, which calls free on it; a text handed in belongs to the daemon and is
 * valid during the call only.
 *
 * The functions are called on changing threads, respond_cloud on several at once. Each may take
 * its time, but the cloud and, when the daemon stops, the daemon wait for it: none may wait without
 * end. Standard output carries the daemon's log; a kit writes elsewhere. */
#ifndef CLOUD_KIT_H
#define CLOUD_KIT_H

#ifdef __cplusplus
extern "C" {
#endif

/* Answers a request of the cloud. `request` is the request without its "id"; `*response`, NULL
 * before the call, becomes the answer, also without "id". During the default handshake the answer
 * must hold "error_code" 0. */
typedef int (*respond_cloud_fn)(const char* request, char** response);

/* Makes the request of a helloCloud exchange, one per connection. `*request`, NULL before the
 * call, becomes the request without "id". */
typedef int (*build_request_of_hello_cloud_fn)(char** request);

/* Learns the cloud's answer to it, without its "id" and before the daemon judges it: called for
 * refusals as well. */
typedef int (*recv_response_of_hello_cloud_fn)(const char* response);

/* What a kit exports under these names; each may be left out, but not all three.
 *   without vorn_respond_cloud every request of the cloud fails;
 *   without vorn_build_request_of_hello_cloud the default handshake is used instead;
 *   without vorn_recv_response_of_hello_cloud the answer goes unseen. */
#pragma GCC visibility push(default)
int vorn_respond_cloud(const char* request, char** response);
int vorn_build_request_of_hello_cloud(char** request);
int vorn_recv_response_of_hello_cloud(const char* response);
#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
