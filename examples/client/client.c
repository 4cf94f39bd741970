/* Asks the cloud one thing and prints its answer:
 *
 *     client '{"method":"echo","params":{"hello":"cloud"}}'
 */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include "cloud_svr_client.h"

enum { CONNECT_MS = 1000, ANSWER_MS = 10000 };

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s JSON\n", argv[0]);
        return 2;
    }
    signal(SIGPIPE, SIG_IGN); /* then a pipe that nobody reads is an error of puts */
    cloud_svr_client_t* client = NULL;
    char* answer = NULL;
    int code = cloud_svr_client_connect(&client, CLOUD_SVR_CLIENT_PATH, CONNECT_MS);
    if (code == 0) {
        code = cloud_svr_client_request(client, argv[1], ANSWER_MS, CLOUD_SVR_CONNECT, &answer);
    }
    cloud_svr_client_close(client);
    if (code != 0) {
        fprintf(stderr, "%s: %s (%d)\n", argv[0], cloud_svr_client_strerror(code), code);
        return 1;
    }
    const int printed = puts(answer) != EOF && fflush(stdout) != EOF;
    free(answer);
    if (!printed) {
        perror(argv[0]);
        return 1;
    }
    return 0;
}
