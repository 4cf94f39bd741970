#include "cloud_ctl/command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include "util/clock.h"
#include "util/memory.h"

namespace {

constexpr int kCommandMs = 10000;
constexpr size_t kOutputLimit = 1024 * 1024;

// In the child: never returns.
[[noreturn]] void child_run(const char* command, int end) {
    setpgid(0, 0);
    dup2(end, STDIN_FILENO);
    dup2(end, STDOUT_FILENO);
    execl("/bin/sh", "sh", "-c", command, nullptr);
    _exit(127);
}

// Writes what the command takes and reads what it gives, until it closes its output. False when
// the time runs out or it gives too much.
bool talk(int fd, const std::string& request, const deadline_t& deadline, std::string* output) {
    size_t sent = 0;
    for (;;) {
        const bool all_sent = sent == request.size();
        struct pollfd item = {fd, static_cast<short>(all_sent ? POLLIN : POLLIN | POLLOUT), 0};
        if (poll(&item, 1, deadline_slice(deadline, kCommandMs)) <= 0) {
            return false;
        }
        if ((item.revents & POLLOUT) != 0) {
            const ssize_t count =
                send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
            sent = count > 0 ? sent + static_cast<size_t>(count) : request.size();
            if (sent == request.size()) {
                shutdown(fd, SHUT_WR);
            }
        }
        if ((item.revents & (POLLIN | POLLHUP)) != 0) {
            char buffer[4096];
            const ssize_t count = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
            if (count == 0) {
                return true;
            }
            output->append(buffer, count > 0 ? static_cast<size_t>(count) : 0);
            if (output->size() > kOutputLimit) {
                return false;
            }
        }
    }
}

// Waits for the child to end, and ends it when the deadline has passed.
//   its exit status, or -1 when it had to be killed
int child_wait(pid_t child, const deadline_t& deadline) {
    constexpr useconds_t rest_us = 5000;
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (deadline_left(deadline) == 0) {
            kill(-child, SIGKILL);
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return -1;
        }
        usleep(rest_us);
    }
    return status;
}

int child_finish(pid_t child, int fd, const std::string& request, std::string* output) {
    const deadline_t deadline = deadline_in(kCommandMs);
    const bool in_time = talk(fd, request, deadline, output);
    return child_wait(child, in_time ? deadline : deadline_in(0));
}

}  // namespace

std::string command_answer(const std::string& command, const std::string& request) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        perror("cloud_ctl: socketpair");
        return "";
    }
    const descriptor_t ours(ends[0]);
    descriptor_t theirs(ends[1]);
    const pid_t child = fork();
    if (child == 0) {
        child_run(command.c_str(), theirs.fd);
    }
    theirs.reset();
    if (child < 0) {
        perror("cloud_ctl: fork");
        return "";
    }
    std::string output;
    const int status = child_finish(child, ours.fd, request + "\n", &output);
    if (status != 0) {
        fprintf(stderr, "cloud_ctl: the command %s\n",
                status > 0 ? "failed" : "was ended: it took too long or gave too much");
        return "";
    }
    while (!output.empty() && output.back() == '\n') {
        output.pop_back();
    }
    return output;
}
