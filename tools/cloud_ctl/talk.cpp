#include "cloud_ctl/talk.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "cloud_ctl/command.h"
#include "cloud_svr_client.h"
#include "common/output.h"
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

// Says why it failed; `detail` may tell more than the code does.
int fail(const talk_options_t& options, int code, const std::string& detail = "") {
    const char* const meaning = cloud_svr_client_strerror(code);
    if (options.json) {
        printf("{\"code\":%d,\"meaning\":%s}\n", code,
               json_print(json_ptr(cJSON_CreateString(meaning)).get()).get());
    }
    fprintf(stderr, "cloud_ctl: %s (%d)%s%s\n", meaning, code, detail.empty() ? "" : ": ",
            detail.c_str());
    return exit_failed;
}

// The same where there is no connection to the daemon.
int fail_connect(const talk_options_t& options, int code) {
    if (code != CLOUD_SVR_E_LOCAL_SEND) {
        return fail(options, code);
    }
    const std::string path = options.socket.empty() ? CLOUD_SVR_CLIENT_PATH : options.socket;
    const bool is_there = access(path.c_str(), W_OK) == 0;
    return fail(options, code, path + ": " + (is_there ? "nobody listens" : strerror(errno)));
}

int usage(const std::string& reason) {
    fprintf(stderr, "cloud_ctl: %s\n", reason.c_str());
    return exit_usage;
}

// Whether the text is a JSON object and nothing else. It is then made compact: one line of output.
bool is_json_object(std::string* text) {
    if (cJSON_IsObject(json_ptr(cJSON_ParseWithOpts(text->c_str(), nullptr, 1)).get()) == 0) {
        return false;
    }
    cJSON_Minify(text->data());
    text->resize(strlen(text->c_str()));
    return true;
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

// A signal ends the program: at once while it registers, otherwise after it has given its role
// back. So does the loss of standard output.
std::atomic<cloud_svr_client_t*> g_registering;
std::atomic<bool> g_is_over;

void end_soon(int /*signal*/) {
    g_is_over = true;
    cloud_svr_client_shutdown(g_registering);
}

void output_hand_on() {
    if (!output_flush()) {
        end_soon(0);
    }
}

void exchange_print(const talk_options_t& options, const char* request, const std::string& answer) {
    if (options.json) {
        printf("{\"request\":%s,\"answer\":%s}\n", request,
               answer.empty() ? "null" : answer.c_str());
    } else {
        printf("cloud asks:  %s\nanswer:      %s\n", request,
               answer.empty() ? "(none)" : answer.c_str());
    }
    output_hand_on();
}

// The command's output; empty, with a line about it, when that is no answer.
std::string command_answer(const register_options_t& registration, const char* request) {
    command_result_t result =
        command_run(registration.command, request, registration.command_ms, g_is_over);
    if (result.failure.empty() && !is_json_object(&result.output)) {
        result.failure = "the command's output is not a JSON object";
    }
    if (result.failure.empty()) {
        return result.output;
    }
    if (!g_is_over) {
        fprintf(stderr, "cloud_ctl: %s\n", result.failure.c_str());
    }
    return "";
}

int on_request(void* arg, const char* request, char** answer) {
    const auto* const agent = static_cast<const agent_t*>(arg);
    if (g_is_over) {
        return CLOUD_SVR_E_GENERAL;
    }
    const register_options_t& registration = *agent->registration;
    const std::string text =
        registration.command.empty() ? registration.answer : command_answer(registration, request);
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
    output_hand_on();
}

void signals_catch() {
    struct sigaction action = {};
    action.sa_handler = end_soon;
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
    output_hand_on();
    return serve(client);
}

// Reads the helloCloud request. False, with a line about it, when the file holds none.
bool hello_read(const std::string& path, std::string* hello) {
    const descriptor_t file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    char buffer[4096];
    ssize_t count = -1;
    while (file.fd >= 0 && (count = read(file.fd, buffer, sizeof(buffer))) > 0) {
        hello->append(buffer, static_cast<size_t>(count));
    }
    const char* const reason = count < 0               ? strerror(errno)
                               : is_json_object(hello) ? nullptr
                                                       : "is not a JSON object";
    if (reason != nullptr) {
        fprintf(stderr, "cloud_ctl: %s: %s\n", path.c_str(), reason);
    }
    return reason == nullptr;
}

int agent_run(const talk_options_t& options, agent_t* agent) {
    int code = 0;
    const client_ptr client = client_connect(options, &code);
    if (client == nullptr) {
        return fail_connect(options, code);
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

int talk_request(const talk_options_t& options, request_options_t request) {
    if (!is_json_object(&request.request)) {
        return usage("the request is not a JSON object");
    }
    int code = 0;
    const client_ptr client = client_connect(options, &code);
    if (client == nullptr) {
        return fail_connect(options, code);
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

int talk_register(const talk_options_t& options, register_options_t registration) {
    agent_t agent = {&options, &registration, ""};
    if (!is_json_object(&registration.answer)) {
        return usage("the answer is not a JSON object");
    }
    if (!registration.hello_file.empty() && !hello_read(registration.hello_file, &agent.hello)) {
        return exit_failed;
    }
    return agent_run(options, &agent);
}

int talk_reconnect(const talk_options_t& options) {
    int code = 0;
    const client_ptr client = client_connect(options, &code);
    if (client == nullptr) {
        return fail_connect(options, code);
    }
    code = cloud_svr_client_reconnect(client.get(), kDaemonMs);
    if (code != 0) {
        return fail(options, code);
    }
    if (options.json) {
        printf("{\"code\":0}\n");
    }
    return exit_ok;
}
