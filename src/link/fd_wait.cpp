#include "link/fd_wait.h"

#include <errno.h>
#include <poll.h>

namespace {

constexpr uint32_t kSliceMs = 100;

}  // namespace

int fd_wait(int fd, short events, const deadline_t& deadline, fd_wait_goes_on_fn goes_on,
            const void* arg) {
    for (;;) {
        struct pollfd item = {fd, events, 0};
        const int slice = deadline_slice(deadline, kSliceMs);
        const int result = poll(&item, 1, slice);
        if (result > 0 || (result < 0 && errno != EINTR)) {
            return result;
        }
        if (deadline_left(deadline) == 0 || !goes_on(arg)) {
            return 0;
        }
    }
}
