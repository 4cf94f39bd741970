// cloud_ctl log: a daemon's log, filtered and coloured.
#pragma once

#include <string>
#include <vector>

struct log_options_t {
    std::vector<std::string> levels;   // empty: all
    std::vector<std::string> modules;  // "session" or "session.c"; empty: all
    int client = -1;                   // a descriptor's number; -1: all
    int id = -1;                       // a message id, whose whole way is shown; -1: all
    bool colour = false;
    bool json = false;
};

// Prints the lines of standard input that pass. Lines that are none of the log pass only without a
// filter. False, said on standard error, when the input can't be read.
bool log_view(const log_options_t& options);
