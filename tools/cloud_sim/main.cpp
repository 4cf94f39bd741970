// cloud_sim: the engine behind a command line. Standard input's lines go to the devices, what
// passes goes to standard output.

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>
#include <cjson/cJSON.h>

#include "cloud_sim/engine.h"
#include "cloud_sim/scenario.h"
#include "common/output.h"

namespace {

constexpr std::uint16_t default_port = 50443;
constexpr std::size_t max_line = 1U << 20;

struct settings_t {
    sim_config_t config;
    std::string hello;
    std::string scenario;
    std::string made;
    std::string ca_out;
    std::string client_out;
    bool quiet = false;
};

// In the order of sim_made_t.
const std::vector<std::string> made_words = {"self_signed", "by_ca", "expired", "not_yet_valid"};

std::mutex print_lock;  // taken after the engine's

// What isn't printable ASCII or UTF-8 is shown in hexadecimal, so that a message stays a line.
std::string one_line(std::string_view text) {
    std::string line;
    for (const char byte : text) {
        if (static_cast<unsigned char>(byte) >= 0x20 && byte != 0x7F) {
            line += byte;
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", static_cast<unsigned char>(byte));
            line += hex;
        }
    }
    return line;
}

const char* label(sim_what_t what) {
    switch (what) {
        case sim_what_t::opened:
            return "connected from ";
        case sim_what_t::secured:
            return "TLS: ";
        case sim_what_t::handshaken:
            return "handshake done: ";
        case sim_what_t::received:
            return "<- ";
        case sim_what_t::sent:
            return "-> ";
        case sim_what_t::fault:
            return "fault: ";
        case sim_what_t::acted:
            return "action: ";
        case sim_what_t::closed:
            return "closed ";
    }
    return "";
}

// Without anybody to read what passes it ends, as a signal would end it. Wants print_lock held.
void hand_on() {
    if (!output_flush()) {
        kill(getpid(), SIGTERM);
    }
}

void print_entry(const sim_entry_t& entry) {
    const std::lock_guard guard(print_lock);
    std::printf("@%d %s%s\n", entry.device, label(entry.what), one_line(entry.text).c_str());
    hand_on();
}

void print_statistics(const sim_stats_t& stats) {
    const auto number = [](std::uint64_t count) { return std::to_string(count); };
    std::string text =
        "connections " + number(stats.connections) + ", handshakes " + number(stats.handshakes) +
        ", faults " + number(stats.faults) + "\nrequests " + number(stats.requests) + ", answers " +
        number(stats.answers) + ", heartbeats " + number(stats.heartbeats) + "\nin " +
        number(stats.frames_in) + " messages, " + number(stats.bytes_in) + " bytes; out " +
        number(stats.frames_out) + " messages, " + number(stats.bytes_out) + " bytes\n";
    for (const auto& [method, count] : stats.methods) {
        text += "method " + one_line(method) + ": " + number(count) + "\n";
    }
    const std::lock_guard guard(print_lock);
    std::fputs(text.c_str(), stdout);
}

// ---- Standard input

void complain(const std::string& what) {
    std::fprintf(stderr, "cloud_sim: %s\n", one_line(what).c_str());
}

bool send_to(sim_t* sim, int device, const std::string& line, bool asks) {
    return asks ? sim_post(sim, device, line) >= 0 : sim_send(sim, device, line);
}

// "{...}" for every device or "@N {...}" for device N.
void take_line(sim_t* sim, std::string line) {
    std::vector<int> targets = sim_devices(sim);
    if (!line.empty() && line[0] == '@') {
        char* end = nullptr;
        targets = {static_cast<int>(std::strtol(line.c_str() + 1, &end, 10))};
        line.erase(0, static_cast<std::size_t>(end - line.c_str()));
    }
    line.erase(0, line.find_first_not_of(" \t\r"));
    if (line.empty()) {
        return;
    }
    cJSON* const json = cJSON_ParseWithOpts(line.c_str(), nullptr, 1);
    const bool is_object = cJSON_IsObject(json) != 0;
    const bool asks = cJSON_HasObjectItem(json, "method") != 0;
    cJSON_Delete(json);
    if (!is_object) {
        return complain("not a JSON object: " + line);
    }
    if (targets.empty()) {
        return complain("no device is connected");
    }
    for (const int target : targets) {
        if (target < 1 || !send_to(sim, target, line, asks)) {
            const std::vector<int> open = sim_devices(sim);
            const bool is_open = std::find(open.begin(), open.end(), target) != open.end();
            complain("not sent: " +
                     (is_open ? "too long for a frame" : "no device " + std::to_string(target)));
        }
    }
}

// False at the end of the input.
bool take_input(sim_t* sim, std::string* pending) {
    char bytes[4096];
    const ssize_t count = read(STDIN_FILENO, bytes, sizeof bytes);
    if (count <= 0) {
        if (count < 0 && errno != EIO) {  // of a terminal that belongs to another job now
            complain(std::string("standard input: ") + std::strerror(errno));
        }
        take_line(sim, *pending);
        return false;
    }
    pending->append(bytes, static_cast<std::size_t>(count));
    for (std::size_t end = pending->find('\n'); end != std::string::npos;
         end = pending->find('\n')) {
        take_line(sim, pending->substr(0, end));
        pending->erase(0, end + 1);
    }
    if (pending->size() > max_line) {
        complain("a line too long is left out");
        pending->clear();
    }
    return true;
}

void serve_input(sim_t* sim, int signal_fd) {
    pollfd waits[] = {{signal_fd, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    std::string pending;
    for (;;) {
        if (poll(waits, 2, -1) < 0) {
            continue;
        }
        if (waits[0].revents != 0) {
            return;
        }
        if (waits[1].revents != 0 && !take_input(sim, &pending)) {
            waits[1].fd = -1;
        }
    }
}

// ---- Start

// Before any thread is there, so that all of them leave the two signals to the descriptor.
int catch_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGTTIN, SIG_IGN);  // goes on as a job in the background
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

bool save(const std::string& path, const std::string& pem, std::string* error) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool is_done =
        fd >= 0 && write(fd, pem.data(), pem.size()) == static_cast<ssize_t>(pem.size());
    if (!is_done) {
        *error = "cannot write " + path + ": " + std::strerror(errno);
    }
    close(fd);
    return is_done;
}

bool save_certificates(const sim_t* sim, const settings_t& settings, std::string* error) {
    return (settings.ca_out.empty() || save(settings.ca_out, sim_ca(sim), error)) &&
           (settings.client_out.empty() ||
            save(settings.client_out, sim_client_certificate(sim, "device"), error));
}

// With a line in `error` when it failed, whether or not it serves.
sim_handle_t start(settings_t* settings, std::string* error) {
    sim_config_t& config = settings->config;
    if (!settings->scenario.empty() &&
        !scenario_load(settings->scenario, &config.behaviour, error)) {
        return nullptr;
    }
    if (!settings->hello.empty()) {
        scenario_set_hello(settings->hello, &config.behaviour);
    }
    for (std::size_t i = 0; i < made_words.size(); ++i) {
        config.made = settings->made == made_words[i] ? static_cast<sim_made_t>(i) : config.made;
    }
    config.log_limit = 0;
    config.observer = [quiet = settings->quiet](const sim_entry_t& entry) {
        if (!quiet || entry.asked) {
            print_entry(entry);
        }
    };
    // The first line says where, even if a device is quicker.
    const std::lock_guard guard(print_lock);
    sim_handle_t sim = sim_start(config, error);
    if (sim != nullptr && save_certificates(sim.get(), *settings, error)) {
        std::printf("listening on %s:%u\n", config.address.c_str(), sim_port(sim.get()));
        hand_on();
    }
    return sim;
}

int run(settings_t* settings) {
    const int signal_fd = catch_signals();
    std::string error;
    const sim_handle_t sim = start(settings, &error);
    if (signal_fd < 0 || sim == nullptr || !error.empty()) {
        complain(!error.empty() ? error : "cannot catch signals");
        return EXIT_FAILURE;
    }
    serve_input(sim.get(), signal_fd);
    sim_stop(sim.get());
    print_statistics(sim_stats(sim.get()));
    close(signal_fd);
    return EXIT_SUCCESS;
}

std::string check_hello(const std::string& word) {
    sim_behaviour_t unused;
    return scenario_set_hello(word, &unused) ? std::string() : "no such hello: " + word;
}

void add_certificate_options(CLI::App* app, settings_t* settings) {
    sim_config_t& config = settings->config;
    auto* const certificate = app->add_option("--cert", config.certificate_file,
                                              "certificate (PEM); one is made if not given");
    auto* const key = app->add_option("--key", config.key_file, "its private key (PEM)");
    certificate->needs(key);
    key->needs(certificate);
    app->add_option("--make", settings->made, "which certificate is made")
        ->check(CLI::IsMember(made_words))
        ->excludes(certificate);
    app->add_option("--names", config.names, "what it is for: DNS:a.example,IP:10.0.0.1")
        ->excludes(certificate);
    app->add_option("--ca-out", settings->ca_out, "write the CA that certificates come from (PEM)");
    app->add_option("--client-out", settings->client_out,
                    "write a client certificate of that CA with its key (PEM)");
    app->add_flag("--ask-client", config.ask_client, "let in none but devices with such a one");
}

void add_options(CLI::App* app, settings_t* settings) {
    sim_config_t& config = settings->config;
    config.port = default_port;
    app->add_option("--port", config.port, "TCP port, 0 for any free one")
        ->check(CLI::Range(0, UINT16_MAX).description(""))
        ->type_name("PORT")
        ->capture_default_str();
    app->add_option("--address", config.address, "IPv4 address to listen on")
        ->check(CLI::ValidIPV4)
        ->capture_default_str();
    add_certificate_options(app, settings);
    app->add_option("--hello", settings->hello,
                    "answer to helloCloud: accept, refuse[:TYPE], stop[:SECONDS], error:CODE,\n"
                    "wrong_id or silent")
        ->check(CLI::Validator(check_hello, "WORD"));
    app->add_option("--scenario", settings->scenario, "what to answer and send (JSON file)");
    app->add_flag("--quiet", settings->quiet, "print answers to typed requests only");
}

// Whether to go on; if not, `exit_code` says how to end.
bool parse(int argc, char** argv, settings_t* settings, int* exit_code) {
    constexpr int wrong_usage = 2;
    CLI::App app("A simulated cloud for devices to connect to");
    add_options(&app, settings);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        *exit_code = error.get_exit_code() == 0 ? app.exit(error) : wrong_usage;
        if (*exit_code == wrong_usage) {
            complain(std::string(error.what()) + " (see cloud_sim --help)");
        }
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        settings_t settings;
        int exit_code = EXIT_FAILURE;
        if (output_prepare() && parse(argc, argv, &settings, &exit_code)) {
            exit_code = run(&settings);
        }
        return output_flush() ? exit_code : EXIT_FAILURE;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "cloud_sim: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
