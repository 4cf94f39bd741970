// A shell command that answers the cloud's requests.
#pragma once

#include <atomic>
#include <string>

// Exactly one of the two is empty.
struct command_result_t {
    std::string output;   // without the newlines at its end
    std::string failure;  // why there is none, in words
};

// Runs `command` with `request` as its standard input, for `timeout_ms` at most or until a signal's
// handler sets `is_over`: it is killed then, with all that it has started.
command_result_t command_run(const std::string& command, const std::string& request, int timeout_ms,
                             const std::atomic<bool>& is_over);
