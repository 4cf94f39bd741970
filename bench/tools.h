// The subcommands of cloud_bench; each returns the exit status.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "peer.h"

struct load_t {
    peer_t peer;
    int clients = 1;
    std::size_t bytes = 128;
    double seconds = 1;
    std::vector<pid_t> gateway;
};

// Keeps one request of each client under way for so long and prints one line of JSON; then holds
// the connections open, quietly, until standard input ends.
int load_run(const load_t& load);

// Asks until a first answer has come and prints the milliseconds since the process began, or since
// `since_ns` (monotonic) when that isn't 0. A `gateway` (a command and its arguments) is started
// first, its standard output in `log`, and ended with SIGTERM afterwards.
int ask_first(const peer_t& peer, std::int64_t since_ns, const std::vector<std::string>& gateway,
              const std::string& log);

// ask_first in a new process, whose own start counts, too: what a program costs that connects by
// itself.
int ask_first_anew(const std::string& peer);

// Asks again and again for so long, or until an outage of half a second is over, and prints the
// longest time in milliseconds without an answer.
int ask_on(const peer_t& peer, double seconds);

// Answers what the cloud asks, until standard input ends: as the device itself, as the client
// registered with the daemon, or as a subscriber of PREFIX/# who publishes on REPLY/#.
int answer_run(const peer_t& peer);

// The cloud: prints its port, then obeys the lines of standard input until it ends.
//   "ask MS WINDOW BYTES [PID...]"  asks the device that connected last, so many requests at once,
//                                   and prints one line of JSON
//   "close"                         closes every connection and prints "closed"
// With a certificate's name given, the certificate is written there.
int cloud_run(const std::string& certificate);
