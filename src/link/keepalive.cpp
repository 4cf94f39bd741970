#include "link/keepalive.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

constexpr int kQuietSeconds = 30;
constexpr int kBetweenProbesSeconds = 10;
constexpr int kProbes = 3;
// Probes end by it, too: less than the three of them take would leave fewer.
constexpr int kUnacknowledgedMs = (kQuietSeconds + kProbes * kBetweenProbesSeconds) * 1000;

// The kernel's number: C libraries older than the option don't name it.
constexpr int kUserTimeout = 18;

}  // namespace

void keepalive_set(int fd) {
    const int on = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
    const int options[][2] = {{TCP_KEEPIDLE, kQuietSeconds},
                              {TCP_KEEPINTVL, kBetweenProbesSeconds},
                              {TCP_KEEPCNT, kProbes},
                              {kUserTimeout, kUnacknowledgedMs}};
    for (const auto& option : options) {
        (void)setsockopt(fd, IPPROTO_TCP, option[0], &option[1], sizeof(option[1]));
    }
}
