#include "cloud_ctl/command.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "util/clock.h"
#include "util/memory.h"

namespace {

constexpr size_t kOutputLimit = 1024 * 1024;

// A command as the functions here know it while it runs.
struct run_t {
    pid_t child;
    int fd;  // our end of its standard input and output
    deadline_t deadline;
    const std::atomic<bool>* is_over;
};

// In the child: never returns.
[[noreturn]] void child_run(const char* command, int end) {
    setpgid(0, 0);
    signal(SIGPIPE, SIG_DFL);
    dup2(end, STDIN_FILENO);
    dup2(end, STDOUT_FILENO);
    execl("/bin/sh", "sh", "-c", command, nullptr);
    _exit(127);
}

bool time_is_over(const run_t& run) {
    return *run.is_over || deadline_left(run.deadline) == 0;
}

// Sends what the command takes now, and the end of its input behind the last byte.
void request_send(int fd, const std::string& request, size_t* sent) {
    const ssize_t count =
        send(fd, request.data() + *sent, request.size() - *sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    *sent = count > 0 ? *sent + static_cast<size_t>(count) : request.size();
    if (*sent == request.size()) {
        shutdown(fd, SHUT_WR);
    }
}

// False at the end of the output.
bool output_take(int fd, std::string* output) {
    char buffer[4096];
    const ssize_t count = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
    output->append(buffer, count > 0 ? static_cast<size_t>(count) : 0);
    return count > 0 || (count < 0 && errno == EAGAIN);
}

// Writes the request and reads the output until the command closes it, the time is over or it is
// too much.
void talk(const run_t& run, const std::string& request, std::string* output) {
    size_t sent = 0;
    bool goes_on = true;
    while (goes_on && !time_is_over(run) && output->size() <= kOutputLimit) {
        const bool all_sent = sent == request.size();
        struct pollfd item = {run.fd, static_cast<short>(all_sent ? POLLIN : POLLIN | POLLOUT), 0};
        if (poll(&item, 1, deadline_slice(run.deadline, INT32_MAX)) <= 0) {
            continue;
        }
        if ((item.revents & POLLOUT) != 0) {
            request_send(run.fd, request, &sent);
        }
        if ((item.revents & (POLLIN | POLLHUP)) != 0) {
            goes_on = output_take(run.fd, output);
        }
    }
}

// Waits for the child to end: its status. When the time is over it and what it has started, which
// may still hold its output, are killed.
int child_wait(const run_t& run) {
    constexpr useconds_t rest_us = 5000;
    int status = 0;
    while (!time_is_over(run)) {
        if (waitpid(run.child, &status, WNOHANG) != 0) {
            return status;
        }
        usleep(rest_us);
    }
    kill(-run.child, SIGKILL);
    kill(run.child, SIGKILL);
    waitpid(run.child, &status, 0);
    return status;
}

// Why the output is no answer; empty when it may be one.
std::string failure_of(const run_t& run, int timeout_ms, int status, const std::string& output) {
    if (output.size() > kOutputLimit) {
        return "the command was ended: it gave more than 1 MiB";
    }
    if (deadline_left(run.deadline) == 0) {
        return "the command was ended: it took longer than " + std::to_string(timeout_ms) + " ms";
    }
    if (WIFSIGNALED(status)) {
        return "the command was ended by signal " + std::to_string(WTERMSIG(status));
    }
    if (WEXITSTATUS(status) != 0) {
        return "the command failed with exit status " + std::to_string(WEXITSTATUS(status));
    }
    return output.empty() ? "the command gave no output" : "";
}

command_result_t failed(const char* what) {
    return {"", std::string("cannot run the command: ") + what + ": " + strerror(errno)};
}

}  // namespace

command_result_t command_run(const std::string& command, const std::string& request, int timeout_ms,
                             const std::atomic<bool>& is_over) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return failed("socketpair");
    }
    const descriptor_t ours(ends[0]);
    descriptor_t theirs(ends[1]);
    run_t run = {fork(), ours.fd, deadline_in(timeout_ms), &is_over};
    if (run.child == 0) {
        child_run(command.c_str(), theirs.fd);
    }
    theirs.reset();
    if (run.child < 0) {
        return failed("fork");
    }
    std::string output;
    talk(run, request + "\n", &output);
    if (output.size() > kOutputLimit) {
        run.deadline = deadline_in(0);
    }
    const int status = child_wait(run);
    output.erase(output.find_last_not_of('\n') + 1);
    const std::string failure = failure_of(run, timeout_ms, status, output);
    return failure.empty() ? command_result_t{output, ""} : command_result_t{"", failure};
}
