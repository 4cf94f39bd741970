/* A local process's side of cloud_svr: ask the cloud, and answer what the cloud asks the device.
 *
 *     cloud_svr_client_t* client = NULL;
 *     char* answer = NULL;
 *     int code = cloud_svr_client_connect(&client, CLOUD_SVR_CLIENT_PATH, 1000);
 *     if (code == 0) {
 *         code = cloud_svr_client_request(client, "{\"method\":\"getTime\"}", 5000, 0, &answer);
 *     }
 *     puts(code == 0 ? answer : cloud_svr_client_strerror(code));
 *     free(answer);
 *     cloud_svr_client_close(client);
 *
 * Link with -lcloud_svr_client, statically also with -lcjson -lpthread.
 *
 * Texts are NUL-terminated JSON. A text handed in stays the caller's; an answer handed out through
 * a pointer comes from malloc and is the caller's to free; a text handed to a callback is valid
 * during the call. The member "id" of requests and answers is the daemon's business: it is in none
 * of them. The library prints nothing.
 *
 * Results are 0 or a negative code (cloud_svr_codes.h, CLOUD_SVR_E_REFUSED); each function may
 * give CLOUD_SVR_E_ARGUMENT for a missing argument and CLOUD_SVR_E_RESOURCE when memory is out.
 * When the daemon has gone, waits end with CLOUD_SVR_E_LOCAL_CLOSED, and so does every call from
 * then on: close the client and connect anew.
 *
 * Time-outs are milliseconds; 0 or less doesn't wait, unless something else is said. A function
 * that sends may take 5 s more while the daemon takes nothing from its socket.
 *
 * Threads: any thread may call, several at once, also from inside a callback; the one exception is
 * cloud_svr_client_close, which must be the last call. The library has no thread of its own:
 * messages are taken, and callbacks run, inside cloud_svr_client_process and whatever waits for an
 * answer. With several threads there, any of them may run a callback, and two at once. A process
 * that registers and then waits nowhere never answers. */
#ifndef CLOUD_SVR_CLIENT_H
#define CLOUD_SVR_CLIENT_H

#include "cloud_svr_codes.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Where the daemon listens. */
#define CLOUD_SVR_CLIENT_PATH "/tmp/cloud_svr"

/* The library's own code: the daemon serves as many clients as it may; try again later. */
enum { CLOUD_SVR_E_REFUSED = -1103 };

/* One connection to the daemon. */
typedef struct cloud_svr_client cloud_svr_client_t;

#pragma GCC visibility push(default)

/* What a code means, in a few English words; a constant text for any number. */
const char* cloud_svr_client_strerror(int code);

/* ---- The connection */

/* Connects to the daemon at `path` (NULL: CLOUD_SVR_CLIENT_PATH) and waits for its greeting.
 *   0 with `*client` set; otherwise it is NULL and the result
 *   CLOUD_SVR_E_LOCAL_SEND    no daemon there
 *   CLOUD_SVR_E_REFUSED       the daemon has no room for another client
 *   CLOUD_SVR_E_LOCAL_CLOSED  it closed the connection without a greeting
 *   CLOUD_SVR_E_TIMEOUT       it didn't answer in time
 *   CLOUD_SVR_E_FORMAT        whatever answered is no cloud_svr */
int cloud_svr_client_connect(cloud_svr_client_t** client, const char* path, int timeout_ms);

/* Ends the connection as if the daemon had gone, so that other threads' waits end. The client
 * still has to be closed. May be called from a signal handler. */
void cloud_svr_client_shutdown(cloud_svr_client_t* client);

/* Frees the client. Callbacks of requests still open get CLOUD_SVR_E_LOCAL_CLOSED before. No other
 * thread may be in the library any more, and no callback may call this. NULL is ignored. */
void cloud_svr_client_close(cloud_svr_client_t* client);

/* ---- Asking the cloud */

/* Flag of a request: if the daemon isn't connected to the cloud, it connects first. */
enum { CLOUD_SVR_CONNECT = 1 };

/* Sends the cloud `request`, an object with "method", and waits for its answer. `timeout_ms` is
 * for all of it, connecting included; negative: the daemon's own time-out for requests, with
 * 10 minutes as the longest.
 *   0 with `*answer` set, whatever its "error_code" says; otherwise it is NULL and the result
 *   CLOUD_SVR_E_TIMEOUT        no answer in time; the cloud may have got the request
 *   CLOUD_SVR_E_NO_CONNECTION  not sent: the daemon isn't connected, or had to connect anew
 *   CLOUD_SVR_E_FORMAT         `request` is not JSON
 *   CLOUD_SVR_E_METHOD         it has no "method"
 *   or another code of the daemon's */
int cloud_svr_client_request(cloud_svr_client_t* client, const char* request, int timeout_ms,
                             int flags, char** answer);

/* Gets what cloud_svr_client_request would: `code`, and `answer`, which is NULL unless it is 0. */
typedef void (*cloud_svr_answer_fn)(void* arg, int code, const char* answer);

/* cloud_svr_client_request without the wait.
 *   0: `on_answer` is called exactly once; otherwise the request failed at once and it is not */
int cloud_svr_client_send(cloud_svr_client_t* client, const char* request, int timeout_ms,
                          int flags, cloud_svr_answer_fn on_answer, void* arg);

/* ---- With an event loop: poll the descriptor for POLLIN, at most for cloud_svr_client_timeout,
 * then process without waiting. */

/* The descriptor, the client's own: only for polling. */
int cloud_svr_client_fd(const cloud_svr_client_t* client);

/* Milliseconds, as poll takes them, until a request sent without waiting times out; -1: none. */
int cloud_svr_client_timeout(cloud_svr_client_t* client);

/* Takes what has come and runs the callbacks that are due. Waits at most `timeout_ms` for the
 * first of them; negative: until there is one.
 *   how many messages and time-outs there were, or CLOUD_SVR_E_LOCAL_CLOSED and the like once the
 *   connection is gone and every callback has been told */
int cloud_svr_client_process(cloud_svr_client_t* client, int timeout_ms);

/* ---- Being the device's agent: the one client that answers what the cloud asks */

typedef struct cloud_svr_agent {
    /* Answers a request of the cloud: 0 with `*answer` set to a text from malloc, which the
     * library frees, or a negative code that the cloud is told instead. Required. */
    int (*on_request)(void* arg, const char* request, char** answer);

    /* Makes the request of a helloCloud exchange, in the same way, at each connection to the
     * cloud. NULL: the daemon uses the default handshake, whose requests (getDeviceInfo,
     * notifyEvent) go to on_request and must be answered with "error_code" 0. */
    int (*on_hello_request)(void* arg, char** request);

    /* Learns the cloud's answer to it. May be NULL. */
    void (*on_hello_answer)(void* arg, const char* answer);

    void* arg;
} cloud_svr_agent_t;

/* Registers, with a copy of `*agent`. The daemon answers once it is connected to the cloud; until
 * then the callbacks above run already, here or in another wait.
 *   0                          registered and connected
 *   CLOUD_SVR_E_NO_CONNECTION  registered; the daemon goes on trying to connect
 *   CLOUD_SVR_E_TIMEOUT        the daemon didn't answer: it may have registered the client
 *   CLOUD_SVR_E_REGISTRATION   another client is the agent, or a cloud kit is
 *   After any other result the client is not registered. */
int cloud_svr_client_register(cloud_svr_client_t* client, const cloud_svr_agent_t* agent,
                              int timeout_ms);

/* Gives the role back. Callbacks that run on other threads may still finish. */
int cloud_svr_client_unregister(cloud_svr_client_t* client, int timeout_ms);

/* Lets the daemon drop its connection to the cloud and make a new one; doesn't wait for that. */
int cloud_svr_client_reconnect(cloud_svr_client_t* client, int timeout_ms);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
