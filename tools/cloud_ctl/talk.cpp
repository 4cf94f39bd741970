#include "cloud_ctl/talk.h"

#include <poll.h>
#include <signal.h>
#include <string.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

#include "cloud_ctl/command.h"
#include "cloud_svr_client.h"
#include "util/json.h"

namespace {

constexpr int kConnectMs = 5000;
constexpr int kDaemonMs = 5000;
// The daemon answers a registration once it is connected, at the latest after its time-out for
// requests, which only it knows.
constexpr int kRegisterMs = 10 * 60 * 1000;

struct client_deleter_t {
    void operator()(cloud_svr_client_t* client) const { cloud_svr_client_close(client); }
};

using client_ptr = std::unique_ptr<cloud_svr_client_t, client_deleter_t>;

int fail(const talk_options_t& options, int code) {
    const char* const meaning = cloud_svr_client_strerror(code);
    if (options.json) {
        printf("{\"code\":%d,\"meaning\":%s}\n", code,
               json_print(json_ptr(cJSON_CreateString(meaning)).get()).get());
    }
    fprintf(stderr, "cloud_ctl: %d: %s\n", code, meaning);
    return exit_failed;
}

int usage(const std::string& reason) {
    fprintf(stderr, "cloud_ctl: %s\n", reason.c_str());
    return exit_usage;
}

bool is_json_object(const std::string& text) {
    return cJSON_IsObject(json_ptr(cJSON_Parse(text.c_str())).get()) != 0;
}

client_ptr client_connect(const talk_options_t& options, int* code) {
    cloud_svr_client_t* client = nullptr;
    const char* const path = options.socket.empty() ? nullptr : options.socket.c_str();
    *code = cloud_svr_client_connect(&client, path, kConnectMs);
    return client_ptr(client);
}

// The agent as its callbacks know it.
struct agent_t {
    const talk_options_t* options;
    const register_options_t* registration;
    std::string hello;
};

void exchange_print(const talk_options_t& options, const char* request, const std::string& answer) {
    if (options.json) {
        printf("{\"request\":%s,\"answer\":%s}\n", request,
               answer.empty() ? "null" : answer.c_str());
    } else {
        printf("cloud asks:  %s\nanswer:      %s\n", request,
               answer.empty() ? "(none)" : answer.c_str());
    }
    fflush(stdout);
}

// A signal ends the program: at once while it registers, otherwise after it has given its role
// back.
std::atomic<cloud_svr_client_t*> g_registering;
std::atomic<bool> g_is_over;

void on_signal(int /*number*/) {
    g_is_over = true;
    cloud_svr_client_shutdown(g_registering);
}

int on_request(void* arg, const char* request, char** answer) {
    const auto* const agent = static_cast<const agent_t*>(arg);
    std::string text = agent->registration->answer;
    if (g_is_over) {
        return CLOUD_SVR_E_GENERAL;
    }
    if (!agent->registration->command.empty()) {
        text = command_answer(agent->registration->command, request);
    }
    if (!text.empty() && !is_json_object(text)) {
        fprintf(stderr, "cloud_ctl: the command's output is not a JSON object\n");
        text.clear();
    }
    exchange_print(*agent->options, request, text);
    *answer = text.empty() ? nullptr : strdup(text.c_str());
    return *answer == nullptr ? CLOUD_SVR_E_GENERAL : 0;
}

int on_hello_request(void* arg, char** request) {
    *request = strdup(static_cast<agent_t*>(arg)->hello.c_str());
    return *request == nullptr ? CLOUD_SVR_E_RESOURCE : 0;
}

void on_hello_answer(void* arg, const char* answer) {
    const auto* const agent = static_cast<const agent_t*>(arg);
    printf(agent->options->json ? "{\"hello_answer\":%s}\n" : "helloCloud:  %s\n", answer);
    fflush(stdout);
}

void signals_catch() {
    struct sigaction action = {};
    action.sa_handler = on_signal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

// Waits for the daemon to say something, or for a signal, at whatever moment it comes.
void serve_wait(const cloud_svr_client_t* client) {
    sigset_t ends;
    sigset_t former;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    sigprocmask(SIG_BLOCK, &ends, &former);
    if (!g_is_over) {
        struct pollfd item = {cloud_svr_client_fd(client), POLLIN, 0};
        (void)ppoll(&item, 1, nullptr, &former);
    }
    sigprocmask(SIG_SETMASK, &former, nullptr);
}

// Answers the cloud until a signal comes (0) or the daemon goes (its code).
int serve(cloud_svr_client_t* client) {
    while (!g_is_over) {
        const int code = cloud_svr_client_process(client, 0);
        if (code < 0) {
            return code;
        }
        serve_wait(client);
    }
    return cloud_svr_client_unregister(client, kDaemonMs);
}

int register_and_serve(const talk_options_t& options, cloud_svr_client_t* client,
                       const cloud_svr_agent_t& agent) {
    g_registering = client;
    signals_catch();
    const int code = cloud_svr_client_register(client, &agent, kRegisterMs);
    g_registering = nullptr;
    // Without a connection yet the daemon goes on trying, and so the agent stays.
    if (code != 0 && code != CLOUD_SVR_E_NO_CONNECTION) {
        return g_is_over ? 0 : code;
    }
    if (options.json) {
        printf("{\"registered\":true,\"connected\":%s}\n", code == 0 ? "true" : "false");
    } else {
        printf("registered%s\n", code == 0 ? "" : ", not connected yet");
    }
    fflush(stdout);
    return serve(client);
}

bool file_read(const std::string& path, std::string* text) {
    std::ifstream file(path);
    std::stringstream all;
    all << file.rdbuf();
    *text = all.str();
    return file.good() || file.eof();
}

int agent_run(const talk_options_t& options, agent_t* agent) {
    int code = 0;
    const client_ptr client = client_connect(options, &code);
    if (client == nullptr) {
        return fail(options, code);
    }
    cloud_svr_agent_t callbacks = {on_request, nullptr, nullptr, agent};
    if (!agent->registration->hello_file.empty()) {
        callbacks.on_hello_request = on_hello_request;
        callbacks.on_hello_answer = on_hello_answer;
    }
    code = register_and_serve(options, client.get(), callbacks);
    return code == 0 ? exit_ok : fail(options, code);
}

}  // namespace

int talk_request(const talk_options_t& options, const request_options_t& request) {
    if (!is_json_object(request.request)) {
        return usage("the request is not a JSON object");
    }
    int code = 0;
    const client_ptr client = client_connect(options, &code);
    if (client == nullptr) {
        return fail(options, code);
    }
    char* answer = nullptr;
    code = cloud_svr_client_request(client.get(), request.request.c_str(), request.timeout_ms,
                                    request.connect ? CLOUD_SVR_CONNECT : 0, &answer);
    if (code != 0) {
        return fail(options, code);
    }
    printf(options.json ? "{\"code\":0,\"answer\":%s}\n" : "%s\n", answer);
    free(answer);
    return exit_ok;
}

int talk_register(const talk_options_t& options, const register_options_t& registration) {
    agent_t agent = {&options, &registration, ""};
    if (!is_json_object(registration.answer)) {
        return usage("the answer is not a JSON object");
    }
    if (!registration.hello_file.empty() &&
        (!file_read(registration.hello_file, &agent.hello) || !is_json_object(agent.hello))) {
        fprintf(stderr, "cloud_ctl: %s: can't be read, or holds no JSON object\n",
                registration.hello_file.c_str());
        return exit_failed;
    }
    return agent_run(options, &agent);
}

int talk_reconnect(const talk_options_t& options) {
    int code = 0;
    const client_ptr client = client_connect(options, &code);
    if (client != nullptr) {
        code = cloud_svr_client_reconnect(client.get(), kDaemonMs);
    }
    if (code != 0) {
        return fail(options, code);
    }
    if (options.json) {
        printf("{\"code\":0}\n");
    }
    return exit_ok;
}
