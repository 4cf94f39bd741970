// The ways from a local process to the cloud that are compared, as that process sees them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "line.h"

enum class wire_t {
    cloud,   // cloud frames: directly, or with a TLS wrapper in between
    daemon,  // local frames of cloud_svr
    mqtt,    // publishing on PREFIX/N and getting the answer on REPLY/N
};

// What "NAME@ADDRESS" says; NAME is cloud, daemon or mqtt:PREFIX:REPLY.
struct peer_t {
    wire_t wire = wire_t::cloud;
    std::string address;
    std::string prefix, reply;
};

bool peer_parse(const std::string& text, peer_t* peer);

// The frame around a text, by its wire's rules.
std::string cloud_frame(std::string_view text);
std::string daemon_frame(std::string_view text);

// Takes a frame's text, a view into `in`: the frame's size, 0 when it isn't whole yet. Ends the
// process when the magic is wrong.
std::size_t cloud_take(std::string_view in, std::string_view* text);
std::size_t daemon_take(std::string_view in, std::string_view* text);

inline constexpr int peer_answers = -1;

// Connects and makes everything ready for requests, client `number` among several, or for those
// of others with `peer_answers`. fd is -1 when that failed.
line_t peer_open(const peer_t& peer, int number);

// The bytes that client `number` sends for a request whose text is `bytes` long.
std::string peer_request(const peer_t& peer, int number, std::size_t bytes);

// One request of a client: what has come of its answer.
struct answer_t {
    int frames = 0;  // the daemon answers with two
    bool failed = false;
    bool complete = false;
};

// Takes what `in` holds and removes it.
void peer_take(const peer_t& peer, std::string* in, answer_t* answer);
