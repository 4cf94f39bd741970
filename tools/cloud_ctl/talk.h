// What cloud_ctl says to the daemon. Each returns the program's exit code.
#pragma once

#include <string>

constexpr int exit_ok = 0;
constexpr int exit_failed = 1;
constexpr int exit_usage = 2;

struct talk_options_t {
    std::string socket;  // empty: the daemon's usual one
    bool json = false;   // machine-readable output
};

struct request_options_t {
    std::string request;  // JSON
    int timeout_ms = -1;  // -1: as the daemon is configured
    bool connect = false;
};

struct register_options_t {
    std::string hello_file;  // empty: the daemon shakes hands by itself
    std::string answer = R"({"error_code":0})";
    std::string command;     // given each cloud request, gives its answer; empty: `answer` is given
    int command_ms = 10000;  // how long it may take
};

int talk_request(const talk_options_t& options, request_options_t request);

// Stays until a signal ends it or the daemon goes.
int talk_register(const talk_options_t& options, register_options_t registration);

int talk_reconnect(const talk_options_t& options);
