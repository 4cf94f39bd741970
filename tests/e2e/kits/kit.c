/* A cloud kit for the tests, built with more or fewer of its functions. It answers a request with
 * {"error_code":0,"result":<the request>}, but "slow" only after a while and "mute" not at all. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cloud_kit.h"

#ifdef KIT_SLOW_LOAD
static void __attribute__((constructor)) load_slowly(void) {
    usleep(500 * 1000);
}
#endif

#ifdef KIT_RESPOND
int vorn_respond_cloud(const char* request, char** response) {
    static const char format[] = "{\"error_code\":0,\"result\":%s}";
    const size_t size = sizeof(format) + strlen(request);
    if (strstr(request, "\"method\":\"mute\"") != NULL) {
        return -1;
    }
    if (strstr(request, "\"method\":\"slow\"") != NULL) {
        usleep(300 * 1000);
    }
    *response = malloc(size);
    snprintf(*response, size, format, request);
    return 0;
}
#endif

#ifdef KIT_HELLO
int vorn_build_request_of_hello_cloud(char** request) {
    *request = strdup("{\"method\":\"helloCloud\",\"params\":{\"kit\":1}}");
    return 0;
}

int vorn_recv_response_of_hello_cloud(const char* response) {
    dprintf(STDERR_FILENO, "kit heard %s\n", response);
    return 0;
}
#endif
