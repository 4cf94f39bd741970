// cloud_ctl log: a daemon's log, filtered and coloured.
#pragma once

#include <istream>
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

// Prints the lines of `input` that pass. Lines that are none of the log pass only without a filter.
void log_view(std::istream& input, const log_options_t& options);
