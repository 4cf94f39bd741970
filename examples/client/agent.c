/* Registers as the device's agent and answers what the cloud asks, until SIGINT or SIGTERM. When
 * the daemon goes away the agent comes back to it. */
#include <signal.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cloud_svr_client.h"

enum { CONNECT_MS = 1000, REGISTER_MS = 30000, REST_S = 2 };

static atomic_bool is_over;
static _Atomic(cloud_svr_client_t*) current;

static void stop(int signal_number) {
    (void)signal_number;
    is_over = true;
    cloud_svr_client_shutdown(current);
}

static int copy_text(const char* text, char** copy) {
    *copy = strdup(text);
    return *copy == NULL ? CLOUD_SVR_E_RESOURCE : 0;
}

/* Every request gets the same answer here; a real agent looks at its "method". */
static int answer_cloud(void* arg, const char* request, char** answer) {
    (void)arg;
    printf("the cloud asks: %s\n", request);
    return copy_text("{\"error_code\":0,\"result\":{\"model\":\"example\"}}", answer);
}

/* With on_hello_request in the agent, the device proves itself by a helloCloud exchange:
 *
 *     static int say_hello(void* arg, char** request) {
 *         return copy_text("{\"method\":\"helloCloud\",\"params\":{...}}", request);
 *     }
 */
static const cloud_svr_agent_t agent = {.on_request = answer_cloud};

/* Serves one connection until it ends: why it did. */
static int serve(cloud_svr_client_t* client) {
    int code = cloud_svr_client_register(client, &agent, REGISTER_MS);
    /* Not connected to the cloud yet is no failure: the daemon goes on trying. */
    while (code >= 0 || code == CLOUD_SVR_E_NO_CONNECTION || code == CLOUD_SVR_E_TIMEOUT) {
        code = cloud_svr_client_process(client, -1);
    }
    return code;
}

static void serve_once(void) {
    cloud_svr_client_t* client = NULL;
    int code = cloud_svr_client_connect(&client, CLOUD_SVR_CLIENT_PATH, CONNECT_MS);
    current = client;
    if (code == 0 && !is_over) {
        code = serve(client);
    }
    current = NULL;
    cloud_svr_client_close(client);
    if (!is_over) {
        fprintf(stderr, "agent: %s (%d)\n", cloud_svr_client_strerror(code), code);
        sleep(REST_S);
    }
}

int main(int argc, char** argv) {
    if (argc != 1) {
        fprintf(stderr, "usage: %s\n", argv[0]);
        return 2;
    }
    const struct sigaction action = {.sa_handler = stop};
    sigaction(SIGINT, &action, NULL);
    sigaction(SIGTERM, &action, NULL);
    setvbuf(stdout, NULL, _IOLBF, 0);
    while (!is_over) {
        serve_once();
    }
    return 0;
}
