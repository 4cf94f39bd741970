// A cloud for devices to connect to: a TLS server that plays the cloud's side of both handshakes,
// answers requests and misbehaves on demand. The tool cloud_sim, the end-to-end tests, the
// benchmarks and the soak all drive this one engine.
//
// Threads: one loop thread serves every device. Each function here may be called from any other
// thread, several at once. Callbacks (on_request, observer, predicates) run with the engine's lock
// held and so must not call the engine.
//
// Devices are numbered 1, 2, 3... in the order in which they connect and a number is never used
// again. `sim_newest` stands for the open device that connected last. An action on a device that
// isn't there does nothing and returns false.
//
// Every wait takes a time-out in ms and returns at once when the engine stops.
// No function throws. SIGPIPE is ignored process-wide from `sim_start` on, unless it has a handler.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct sim_t;

inline constexpr int sim_newest = 0;
inline constexpr std::size_t sim_max_text = 65535;  // what a frame's 16-bit length can carry

// ---- What is done to a device: in answer to a request, after the handshake, or by a test

enum class sim_kind_t : std::uint8_t {
    echo,           // answer a request with its "params" as "result" and error_code 0
    hold,           // keep a request unanswered until `sim_release`
    drop,           // never answer a request
    send,           // send `text` in a frame, as it stands; as an answer it gets the request's "id"
    request,        // send the JSON object `text` in a frame; an "id" is added when it has none
    raw,            // send the bytes of `text` without a frame, in a TLS record of their own
    stall,          // send the first half of `text`'s frame and nothing more until `resume`; a
                    // request gets an "id" when it has none
    resume,         // send the rest of the stalled frame and what has queued up behind it
    stop_reading,   // leave everything the device sends in the socket
    start_reading,  // read again
    close,          // close_notify, then close the connection
    close_tcp,      // close the connection without close_notify
    reset,          // close the connection with RST
};

struct sim_step_t {
    sim_kind_t kind = sim_kind_t::echo;
    std::string text;
    int delay_ms = 0;
    int repeat_ms = 0;  // again after every so many ms until the device is gone; 0: once
};

// ---- How the cloud behaves

enum class sim_hello_t : std::uint8_t {
    accept,    // error_code 0, illegalType 0
    refuse,    // error_code 0, illegalType `hello_value`
    stop,      // stopConnect, with reconnectTime `hello_value` seconds unless that is negative
    error,     // error_code `hello_value`
    wrong_id,  // accept, but with an "id" that isn't the request's
    custom,    // `hello_answer` with the request's "id"
    silent,    // no answer
};

enum class sim_heartbeat_t : std::uint8_t { answer, wrong_id, silent };

struct sim_request_t {
    int device = 0;
    std::string_view method;
    std::string_view text;  // the whole message; valid during the callback only
};

// May be replaced at any moment by `sim_set_behaviour`, which counts from the next message on.
struct sim_behaviour_t {
    // False: TCP connections are accepted, and TLS is never answered on them.
    bool answer_tls = true;

    // A first message other than heartBeat is the hello request, whatever its "method".
    sim_hello_t hello = sim_hello_t::accept;
    int hello_value = 0;
    std::string hello_answer;

    sim_heartbeat_t heartbeat = sim_heartbeat_t::answer;
    int heartbeat_code = 0;  // the "error_code" of every heartBeat's answer

    // The default handshake: both are sent in turn, with an "id", after a first heartBeat that was
    // answered with error_code 0; each must be answered with error_code 0. Empty: left out.
    std::string device_info = R"({"method":"getDeviceInfo","params":{}})";
    std::string verdict = R"({"method":"notifyEvent","params":{"event":"legalDevice"}})";

    // Requests: `requests` is echo, hold or drop; with `on_request` that decides on each request
    // (any kind but resume and start_reading).
    sim_kind_t requests = sim_kind_t::echo;
    std::function<sim_step_t(const sim_request_t&)> on_request;

    std::vector<sim_step_t> after_handshake;  // delays count from the handshake's end
};

// ---- What has happened

enum class sim_what_t : std::uint8_t {
    opened,      // text: the device's address and port
    secured,     // text: the server name that it asked for and the client certificate that it gave;
                 // no entry where there is neither
    handshaken,  // text: "helloCloud" or "default"
    received,    // text: the message
    sent,        // text: the message
    fault,       // text: what the device did wrong
    acted,       // text: drop, stall, resume, stop_reading or start_reading
    closed,      // text: by whom and why
};

struct sim_entry_t {
    std::uint64_t number = 0;  // counts from 0, without gaps
    sim_what_t what = sim_what_t::opened;
    int device = 0;
    std::string text;
    std::string method;    // a message's "method", or empty
    std::int64_t id = -1;  // a message's "id", or -1
    bool asked = false;    // received: the answer to a request of `sim_request` or `sim_post`
};

struct sim_stats_t {
    std::uint64_t connections = 0;  // accepted so far
    std::uint64_t open = 0;         // open now
    std::uint64_t handshakes = 0;   // completed
    std::uint64_t frames_in = 0, frames_out = 0;
    std::uint64_t bytes_in = 0, bytes_out = 0;  // inside TLS
    std::uint64_t heartbeats = 0;
    std::uint64_t requests = 0;  // the devices' requests, heartBeat and hello not counted
    std::uint64_t answers = 0;   // the devices' answers
    std::uint64_t held = 0;      // requests held now
    std::uint64_t faults = 0;
    std::map<std::string, std::uint64_t, std::less<>> methods;  // every message with a "method"
};

// ---- Start and stop

// Which certificate is made. All but the first come from a CA made on the spot (`sim_ca`), by way
// of an intermediate one that is sent along.
enum class sim_made_t : std::uint8_t { self_signed, by_ca, expired, not_yet_valid };

struct sim_config_t {
    std::string address = "127.0.0.1";  // IPv4
    std::uint16_t port = 0;             // 0: any free one
    std::string certificate_file;       // PEM; both empty: one is made in memory
    std::string key_file;
    sim_made_t made = sim_made_t::self_signed;
    std::string names;        // of a made one: "DNS:a.example,IP:10.0.0.1"; empty: this machine's
    bool ask_client = false;  // only devices with a certificate of `sim_ca` are let in
    int max_tls = 0;          // 10, 11, 12 or 13; 0: the newest there is
    std::size_t log_limit = 10000;  // entries kept; 0: nothing is logged (benchmarks)
    std::function<void(const sim_entry_t&)> observer;  // called for every entry
    sim_behaviour_t behaviour;
};

struct sim_stopper_t {
    void operator()(sim_t* sim) const;
};
// Stops on destruction: ends the waits, closes the connections with close_notify, joins the loop.
// No call may be under way then except waits that are ended by it in other threads, which must
// have returned before the handle is gone: use `sim_stop` first in such a case.
using sim_handle_t = std::unique_ptr<sim_t, sim_stopper_t>;

// Listens and serves. Null with one line in `error` when that isn't possible.
sim_handle_t sim_start(sim_config_t config, std::string* error = nullptr);
// Ends every wait, now and later, and closes everything. The counts and the log stay readable.
void sim_stop(sim_t* sim);

std::uint16_t sim_port(const sim_t* sim);
// The certificate in use as PEM, for a device's CA file.
std::string sim_certificate(const sim_t* sim);
// The CA that certificates are made by, as PEM; a self-signed one is its own.
std::string sim_ca(const sim_t* sim);
// A new certificate of that CA for a device, with its key behind it, as PEM; empty when it can't be
// made. `name` is its common name.
std::string sim_client_certificate(const sim_t* sim, const std::string& name);

void sim_set_behaviour(sim_t* sim, sim_behaviour_t behaviour);
sim_behaviour_t sim_get_behaviour(sim_t* sim);

// Stops listening: new connections are refused, those open go on.
void sim_unlisten(sim_t* sim);
// Listens again on the same port. False with a line in `error` when another has taken it.
bool sim_relisten(sim_t* sim, std::string* error = nullptr);

// ---- Actions

// Any step but echo, hold and drop. Without delay it is done when the call returns, as far as the
// socket takes what is sent. False also when `text` is longer than a frame can be.
bool sim_do(sim_t* sim, int device, const sim_step_t& step);

bool sim_send(sim_t* sim, int device, std::string_view text);
bool sim_send_raw(sim_t* sim, int device, std::string_view bytes);
bool sim_close(sim_t* sim, int device, sim_kind_t how = sim_kind_t::close);

// A frame's bytes, for `sim_send_raw`: several make frames in one record, a part makes half a
// frame, an empty text makes a frame of length 0.
std::string sim_frame(std::string_view text);

// Sends the request, with an "id" added when it has none, and waits for the answer with that id.
std::optional<std::string> sim_request(sim_t* sim, int device, std::string_view text,
                                       int timeout_ms);
// The same without waiting: the id, or -1 when nothing was sent.
std::int64_t sim_post(sim_t* sim, int device, std::string_view text);

// Echoes up to `count` held requests, the oldest first unless told otherwise; returns how many.
std::size_t sim_release(sim_t* sim, std::size_t count = SIZE_MAX, bool newest_first = false);

// ---- Waits and look-ups

// True once so many connections were accepted, or handshakes completed, since the start.
bool sim_wait_connections(sim_t* sim, std::uint64_t count, int timeout_ms);
bool sim_wait_handshakes(sim_t* sim, std::uint64_t count, int timeout_ms);
// True once the counts satisfy `enough`, e.g. so many requests are held.
bool sim_wait_stats(sim_t* sim, const std::function<bool(const sim_stats_t&)>& enough,
                    int timeout_ms);

using sim_predicate_fn = std::function<bool(const sim_entry_t&)>;
// The first entry from number `from` on that matches, waited for if need be.
std::optional<sim_entry_t> sim_wait_entry(sim_t* sim, const sim_predicate_fn& matches,
                                          int timeout_ms, std::uint64_t from = 0);
// A message that a device sent with this "method" (empty: an answer).
std::optional<sim_entry_t> sim_wait_received(sim_t* sim, std::string_view method, int timeout_ms,
                                             std::uint64_t from = 0);
// The number that the next entry will have: what a test takes as `from` before it acts.
std::uint64_t sim_mark(sim_t* sim);
std::vector<sim_entry_t> sim_log(sim_t* sim, std::uint64_t from = 0);

sim_stats_t sim_stats(sim_t* sim);
std::vector<int> sim_devices(sim_t* sim);  // those open, in the order in which they connected
