// The engine's inside, shared by its own sources only. Except for what is fixed once started,
// everything is guarded by sim_t's lock: all functions here want it held by the caller.
#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <cjson/cJSON.h>
#include <openssl/ssl.h>

#include "cloud_sim/engine.h"

template <auto release>
struct releaser_t {
    template <typename object_t>
    void operator()(object_t* object) const {
        release(object);
    }
};

using json_t = std::unique_ptr<cJSON, releaser_t<cJSON_Delete>>;
using context_t = std::unique_ptr<SSL_CTX, releaser_t<SSL_CTX_free>>;
using ssl_t = std::unique_ptr<SSL, releaser_t<SSL_free>>;
using private_key_t = std::unique_ptr<EVP_PKEY, releaser_t<EVP_PKEY_free>>;
using x509_t = std::unique_ptr<X509, releaser_t<X509_free>>;
using steady_t = std::chrono::steady_clock;

enum class phase_t : std::uint8_t { start, device_info, verdict, over };

// A request of ours whose answer somebody wants to see.
struct asked_t {
    bool waited = false;  // by `sim_request`, which removes it; else the answer does
    std::optional<std::string> answer;
};

struct sim_device_t {
    int number = 0;
    int fd = -1;  // -1: closed, to be removed when the turn ends
    ssl_t ssl;
    bool muted = false;  // TLS is never answered
    bool secured = false;
    bool wants_write = false;  // the TLS handshake waits for room in the socket
    bool reading = true;
    bool choked = false;  // not read until it takes what waits for it in `out`
    bool stalled = false;
    bool ready = false;  // in sim_t's `ready`
    std::uint32_t interest = 0;
    std::string in;
    std::string out;  // gone up to `out_done`
    std::size_t out_done = 0;
    std::string behind;  // what waits for `resume`
    phase_t phase = phase_t::start;
    std::int64_t awaited = -1;  // the id of the handshake's request
    std::map<std::int64_t, asked_t> asked;
};

struct alarm_t {
    int device = 0;
    sim_step_t step;
};

struct held_t {
    int device = 0;
    std::string text;
};

struct identity_t {
    private_key_t key;
    x509_t certificate;
};

struct sim_t {
    // Fixed once started.
    sim_config_t config;
    std::uint16_t port = 0;
    std::string certificate;
    identity_t ca;  // what the server's certificate, if it was made, and the clients' come from
    context_t context;
    int epoll_fd = -1;
    int wake_fd = -1;
    pthread_t thread{};

    std::atomic<bool> stopping = false;
    std::atomic<bool> running = false;  // the thread is to be joined

    std::mutex lock;
    std::condition_variable changed;

    // Guarded by `lock`.
    bool dirty = false;  // this turn has changed something that a wait may be for
    sim_behaviour_t behaviour;
    int listen_fd = -1;
    bool listen_rests = false;  // out of descriptors: not accepting until `listen_again`
    steady_t::time_point listen_again;
    std::map<int, std::unique_ptr<sim_device_t>> devices;
    std::vector<int> ready;  // to be read though the socket may have nothing new
    int last_device = 0;
    std::int64_t last_id = 0;
    std::multimap<steady_t::time_point, alarm_t> alarms;
    std::deque<held_t> held;
    sim_stats_t stats;
    std::deque<sim_entry_t> log;
    std::uint64_t next_entry = 0;
};

// Holds the lock for a turn of work; at its end closed devices are removed and waits woken.
class turn_t {
 public:
    explicit turn_t(sim_t* sim) : sim_(sim), guard_(sim->lock) {}
    ~turn_t();
    turn_t(const turn_t&) = delete;
    turn_t& operator=(const turn_t&) = delete;

 private:
    sim_t* sim_;
    std::lock_guard<std::mutex> guard_;
};

// certificate.cpp: a TLS server context with the configured certificate or one made on the spot;
// sets `certificate` and `ca`. Null with a line in `error`.
context_t context_make(sim_t* sim, std::string* error);

// engine.cpp
void engine_wake(sim_t* sim);
void engine_schedule(sim_t* sim, int device, const sim_step_t& step);
bool engine_listen(sim_t* sim, std::string* error);
void engine_unlisten(sim_t* sim);

// log.cpp
struct head_t {
    std::string_view method;
    std::int64_t id = -1;
    bool asked = false;
};
bool log_wanted(const sim_t* sim);
void log_add(sim_t* sim, sim_what_t what, int device, std::string_view text,
             const head_t& head = {});

// device.cpp
sim_device_t* device_find(sim_t* sim, int number);  // open ones only
void device_open(sim_t* sim, int fd, std::string_view peer);
void device_event(sim_t* sim, sim_device_t* device, std::uint32_t events);
void device_read(sim_t* sim, sim_device_t* device);
void device_make_ready(sim_t* sim, sim_device_t* device);
// Queues a frame or bytes; `device_flush` sends them. False: too long for a frame.
bool device_put(sim_t* sim, sim_device_t* device, std::string_view text);
void device_put_raw(sim_t* sim, sim_device_t* device, std::string_view bytes);
bool device_stall(sim_t* sim, sim_device_t* device, std::string_view text);
void device_resume(sim_device_t* device);
void device_flush(sim_t* sim, sim_device_t* device);
void device_close(sim_t* sim, sim_device_t* device, sim_kind_t how, std::string_view why);

// script.cpp
void script_message(sim_t* sim, sim_device_t* device, std::string_view text);
bool script_perform(sim_t* sim, sim_device_t* device, const sim_step_t& step);
// Queues the request with an "id"; returns that, or -1.
std::int64_t script_ask(sim_t* sim, sim_device_t* device, std::string_view text);
void script_release(sim_t* sim, const held_t& held);
head_t script_head(const cJSON* message);
json_t script_parse(std::string_view text);
