// Single requests that must get through: after a start, and over a lost connection.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>

#include "statistics.h"
#include "tools.h"

namespace {

constexpr int answer_ms = 20;  // after which a request counts as lost and is sent again
constexpr useconds_t rest_us = 100;
constexpr std::int64_t give_up_ns = 20'000'000'000;
constexpr std::int64_t outage_ns = 500'000'000;
constexpr std::size_t request_bytes = 128;

struct asker_t {
    const peer_t& peer;
    std::string request;
    line_t line;
    std::string in;
};

// Waits for an answer. False when none came, or one that says no.
bool answer_get(asker_t* asker) {
    answer_t answer;
    const std::int64_t until = now_ns() + answer_ms * 1'000'000LL;
    while (!answer.complete && now_ns() < until) {
        if (!line_wait(asker->line, answer_ms)) {
            return false;
        }
        if (!line_receive(asker->line, &asker->in)) {
            asker->line = line_t();
            return false;
        }
        peer_take(asker->peer, &asker->in, &answer);
    }
    return answer.complete && !answer.failed;
}

// One attempt, on a new connection if there is none.
bool ask(asker_t* asker) {
    if (asker->line.fd < 0) {
        asker->in.clear();
        asker->line = peer_open(asker->peer, 0);
    }
    if (asker->line.fd >= 0 && !line_send(asker->line, asker->request)) {
        asker->line = line_t();
    }
    if (asker->line.fd >= 0 && answer_get(asker)) {
        return true;
    }
    usleep(rest_us);
    return false;
}

pid_t start(const std::vector<std::string>& command, const std::string& log) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& part : command) {
        arguments.push_back(const_cast<char*>(part.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    constexpr int mode = O_WRONLY | O_CREAT | O_APPEND;
    if (!log.empty()) {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(), mode, 0600);
        posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    }
    pid_t process = -1;
    if (posix_spawn(&process, arguments[0], &actions, nullptr, arguments.data(), environ) != 0) {
        process = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    return process;
}

}  // namespace

int ask_first(const peer_t& peer, std::int64_t since_ns, const std::vector<std::string>& gateway,
              const std::string& log) {
    const std::int64_t begin = since_ns != 0 ? since_ns : now_ns();
    const pid_t process = gateway.empty() ? 0 : start(gateway, log);
    asker_t asker = {peer, peer_request(peer, 0, request_bytes), line_t(), ""};
    bool answered = false;
    while (process >= 0 && !answered && now_ns() - begin < give_up_ns) {
        answered = ask(&asker);
    }
    const std::int64_t end = now_ns();
    if (process > 0) {
        kill(process, SIGTERM);
        waitpid(process, nullptr, 0);
    }
    if (answered) {
        std::printf("%.3f\n", static_cast<double>(end - begin) / 1e6);
    }
    return answered ? 0 : 1;
}

int ask_first_anew(const std::string& peer) {
    const pid_t process = start({"/proc/self/exe", "first", peer, std::to_string(now_ns())}, "");
    int status = 1;
    return process > 0 && waitpid(process, &status, 0) == process && status == 0 ? 0 : 1;
}

int ask_on(const peer_t& peer, double seconds) {
    asker_t asker = {peer, peer_request(peer, 0, request_bytes), line_t(), ""};
    const std::int64_t until = now_ns() + static_cast<std::int64_t>(seconds * 1e9);
    std::int64_t last = 0, longest = 0;
    while (longest < outage_ns && now_ns() < until) {
        if (ask(&asker)) {
            const std::int64_t answered = now_ns();
            longest = last != 0 ? std::max(longest, answered - last) : 0;
            last = answered;
        }
    }
    std::printf("%.3f\n", static_cast<double>(std::max(longest, now_ns() - last)) / 1e6);
    return last != 0 ? 0 : 1;
}
