// A closed loop of requests: throughput and latency.
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <memory>

#include "statistics.h"
#include "tools.h"

namespace {

constexpr int events_per_turn = 64;
constexpr int last_answers_ms = 5000;

struct client_t {
    line_t line;
    std::string request;
    std::string in;
    answer_t answer;
    std::int64_t sent_ns = 0;
};

struct state_t {
    const load_t* load;
    std::vector<client_t> clients;
    std::int64_t until_ns = 0;
    std::size_t under_way = 0;
    run_t run;
};

bool fail(const char* what) {
    std::fprintf(stderr, "cloud_bench: %s\n", what);
    return false;
}

bool clients_open(state_t* state) {
    for (int i = 0; i < state->load->clients; ++i) {
        client_t client;
        client.line = peer_open(state->load->peer, i);
        client.request = peer_request(state->load->peer, i, state->load->bytes);
        if (client.line.fd < 0) {
            return fail("cannot connect");
        }
        state->clients.push_back(std::move(client));
    }
    return true;
}

bool request_send(state_t* state, client_t* client) {
    client->answer = answer_t{};
    client->sent_ns = now_ns();
    ++state->under_way;
    return line_send(client->line, client->request) || fail("a connection broke");
}

// Takes what came for the client; goes on with the next request unless the time is up.
bool answer_take(state_t* state, client_t* client) {
    peer_take(state->load->peer, &client->in, &client->answer);
    if (client->answer.failed) {
        return fail("a request failed");
    }
    if (!client->answer.complete) {
        return true;
    }
    const std::int64_t now = now_ns();
    state->run.latencies_ns.push_back(now - client->sent_ns);
    --state->under_way;
    return now >= state->until_ns || request_send(state, client);
}

// One client alone needs no poll between its calls.
bool run_single(state_t* state) {
    client_t* const client = &state->clients[0];
    if (!request_send(state, client)) {
        return false;
    }
    while (state->under_way > 0) {
        if (!line_receive(client->line, &client->in)) {
            return fail("a connection broke");
        }
        if (!answer_take(state, client)) {
            return false;
        }
    }
    return true;
}

bool client_ready(state_t* state, client_t* client) {
    std::size_t before = 0;
    do {  // until nothing more comes: TLS may hold more than the socket shows
        before = client->in.size();
        if (!line_receive(client->line, &client->in)) {
            return fail("a connection broke");
        }
    } while (client->line.ssl != nullptr && client->in.size() > before);
    return answer_take(state, client);
}

bool run_several(state_t* state) {
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    for (client_t& client : state->clients) {
        line_make_nonblocking(client.line);
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.ptr = &client;
        epoll_ctl(epoll, EPOLL_CTL_ADD, client.line.fd, &event);
    }
    bool good = true;
    for (client_t& client : state->clients) {
        good = good && request_send(state, &client);
    }
    while (good && state->under_way > 0) {
        std::array<epoll_event, events_per_turn> events;
        const int count = epoll_wait(epoll, events.data(), events_per_turn, last_answers_ms);
        good = count > 0 || fail("answers are missing");
        for (int i = 0; i < count && good; ++i) {
            good = client_ready(
                state, static_cast<client_t*>(events[static_cast<std::size_t>(i)].data.ptr));
        }
    }
    close(epoll);
    return good;
}

void wait_for_end_of_input() {
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
}

}  // namespace

int load_run(const load_t& load) {
    state_t state;
    state.load = &load;
    if (!clients_open(&state)) {
        return 1;
    }
    const std::int64_t cpu = cpu_ns(load.gateway);
    const std::int64_t start = now_ns();
    state.until_ns = start + static_cast<std::int64_t>(load.seconds * 1e9);
    if (!(load.clients == 1 ? run_single(&state) : run_several(&state))) {
        return 1;
    }
    state.run.elapsed_ns = now_ns() - start;
    state.run.cpu_ns = cpu_ns(load.gateway) - cpu;
    run_print(&state.run);
    wait_for_end_of_input();
    return 0;
}
