#include "common/output.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <cstdio>

namespace {

void loss_say(int error) {
    fprintf(stderr, "%s: standard output: %s\n", program_invocation_short_name, strerror(error));
}

}  // namespace

bool output_prepare() {
    signal(SIGPIPE, SIG_IGN);
    const bool is_open = fcntl(STDOUT_FILENO, F_GETFD) >= 0;
    int fd = 0;
    do {
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    close(fd);
    if (!is_open) {
        loss_say(EBADF);
    }
    return is_open;
}

bool output_flush() {
    static bool is_lost = false;
    if (is_lost) {
        return false;
    }
    const int error = fflush(stdout) == 0 ? EIO : errno;
    is_lost = error != EIO || ferror(stdout) != 0;
    if (is_lost) {
        loss_say(error);
    }
    return !is_lost;
}
