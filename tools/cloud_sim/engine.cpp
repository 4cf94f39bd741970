// Start and stop, the listening socket, the alarms and the loop that drives the devices.

#include "cloud_sim/engine.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "cloud_sim/state.h"

namespace {

// Device numbers count up from 1, so these are free as event data.
constexpr std::uint64_t wake_event = 0;
constexpr std::uint64_t listen_event = UINT64_MAX;
constexpr int events_per_turn = 64;
constexpr auto accept_rest = std::chrono::milliseconds(100);

bool fail(std::string* error, const std::string& what) {
    *error = what + ": " + std::strerror(errno);
    return false;
}

bool watch(const sim_t* sim, int fd, std::uint64_t data, int operation, std::uint32_t interest) {
    epoll_event event{};
    event.events = interest;
    event.data.u64 = data;
    return epoll_ctl(sim->epoll_fd, operation, fd, &event) == 0;
}

bool bind_and_listen(const sim_t* sim, int fd, const in_addr& host) {
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr = host;
    address.sin_port = htons(sim->port);
    return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
           listen(fd, SOMAXCONN) == 0 && watch(sim, fd, listen_event, EPOLL_CTL_ADD, EPOLLIN);
}

std::uint16_t bound_port(int fd) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

std::string peer_name(const sockaddr_in& peer) {
    char host[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &peer.sin_addr, host, sizeof host);
    return std::string(host) + ":" + std::to_string(ntohs(peer.sin_port));
}

// Out of descriptors or memory, the socket would stay readable and the loop would spin.
void rest_listening(sim_t* sim) {
    watch(sim, sim->listen_fd, listen_event, EPOLL_CTL_MOD, 0);
    sim->listen_rests = true;
    sim->listen_again = steady_t::now() + accept_rest;
}

void accept_devices(sim_t* sim) {
    while (sim->listen_fd >= 0) {
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        const int fd = accept4(sim->listen_fd, reinterpret_cast<sockaddr*>(&peer), &size,
                               SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                rest_listening(sim);
            }
            return;
        }
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        device_open(sim, fd, peer_name(peer));
    }
}

void handle_event(sim_t* sim, const epoll_event& event) {
    if (event.data.u64 == wake_event) {
        std::uint64_t count = 0;
        (void)!read(sim->wake_fd, &count, sizeof count);
    } else if (event.data.u64 == listen_event) {
        accept_devices(sim);
    } else if (sim_device_t* device = device_find(sim, static_cast<int>(event.data.u64))) {
        device_event(sim, device, event.events);
    }
}

void read_ready(sim_t* sim) {
    std::vector<int> ready;
    ready.swap(sim->ready);
    for (const int number : ready) {
        if (sim_device_t* const device = device_find(sim, number)) {
            device->ready = false;
            device_read(sim, device);
        }
    }
}

void run_alarm(sim_t* sim, alarm_t alarm) {
    sim_device_t* const device = device_find(sim, alarm.device);
    if (device == nullptr) {
        return;
    }
    if (!device->choked) {
        script_perform(sim, device, alarm.step);
        device_flush(sim, device);
    }
    if (alarm.step.repeat_ms > 0 && device->fd >= 0) {
        alarm.step.delay_ms = alarm.step.repeat_ms;
        engine_schedule(sim, alarm.device, alarm.step);
    }
}

void run_alarms(sim_t* sim) {
    const steady_t::time_point now = steady_t::now();
    while (!sim->alarms.empty() && sim->alarms.begin()->first <= now) {
        const auto first = sim->alarms.begin();
        alarm_t alarm = std::move(first->second);
        sim->alarms.erase(first);
        run_alarm(sim, std::move(alarm));
    }
    if (sim->listen_rests && sim->listen_again <= now) {
        sim->listen_rests = false;
        if (sim->listen_fd >= 0) {
            watch(sim, sim->listen_fd, listen_event, EPOLL_CTL_MOD, EPOLLIN);
        }
    }
}

// ms until something is due, for epoll_wait.
int time_to_wait(sim_t* sim) {
    const turn_t turn(sim);
    if (!sim->ready.empty()) {
        return 0;
    }
    steady_t::time_point due = steady_t::time_point::max();
    if (!sim->alarms.empty()) {
        due = sim->alarms.begin()->first;
    }
    if (sim->listen_rests) {
        due = std::min(due, sim->listen_again);
    }
    if (due == steady_t::time_point::max()) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - steady_t::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, INT32_MAX));
}

void* run(void* argument) {
    auto* const sim = static_cast<sim_t*>(argument);
    epoll_event events[events_per_turn];
    while (!sim->stopping) {
        const int count = epoll_wait(sim->epoll_fd, events, events_per_turn, time_to_wait(sim));
        const turn_t turn(sim);
        for (int i = 0; i < count; ++i) {
            handle_event(sim, events[i]);
        }
        read_ready(sim);
        run_alarms(sim);
    }
    return nullptr;
}

void ignore_sigpipe() {
    struct sigaction current {};
    if (sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL) {
        current.sa_handler = SIG_IGN;
        sigaction(SIGPIPE, &current, nullptr);
    }
}

bool start_loop(sim_t* sim, std::string* error) {
    sim->epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    sim->wake_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (sim->epoll_fd < 0 || sim->wake_fd < 0 ||
        !watch(sim, sim->wake_fd, wake_event, EPOLL_CTL_ADD, EPOLLIN)) {
        return fail(error, "cannot set up the event loop");
    }
    if (!engine_listen(sim, error)) {
        return false;
    }
    errno = pthread_create(&sim->thread, nullptr, run, sim);
    if (errno != 0) {
        return fail(error, "cannot start a thread");
    }
    sim->running = true;
    return true;
}

}  // namespace

turn_t::~turn_t() {
    if (!sim_->dirty) {
        return;
    }
    sim_->dirty = false;
    std::erase_if(sim_->devices, [](const auto& device) { return device.second->fd < 0; });
    sim_->changed.notify_all();
}

void engine_wake(sim_t* sim) {
    const std::uint64_t one = 1;
    (void)!write(sim->wake_fd, &one, sizeof one);
}

void engine_schedule(sim_t* sim, int device, const sim_step_t& step) {
    const auto delay = std::chrono::milliseconds(std::max(step.delay_ms, 0));
    const auto at = sim->alarms.emplace(steady_t::now() + delay, alarm_t{device, step});
    at->second.step.delay_ms = 0;
    engine_wake(sim);
}

bool engine_listen(sim_t* sim, std::string* error) {
    const std::string& address = sim->config.address;
    in_addr host{};
    if (inet_pton(AF_INET, address.c_str(), &host) != 1) {
        *error = "not an IPv4 address: " + address;
        return false;
    }
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0 || !bind_and_listen(sim, fd, host)) {
        fail(error, "cannot listen on " + address + ":" + std::to_string(sim->port));
        if (fd >= 0) {
            close(fd);
        }
        return false;
    }
    sim->listen_fd = fd;
    sim->port = bound_port(fd);
    return true;
}

void engine_unlisten(sim_t* sim) {
    if (sim->listen_fd >= 0) {
        close(sim->listen_fd);
        sim->listen_fd = -1;
    }
    sim->listen_rests = false;
}

sim_handle_t sim_start(sim_config_t config, std::string* error) {
    std::string unused;
    error = error != nullptr ? error : &unused;
    ignore_sigpipe();
    sim_handle_t sim(new sim_t);
    sim->config = std::move(config);
    sim->behaviour = std::move(sim->config.behaviour);
    sim->port = sim->config.port;
    sim->context = context_make(sim.get(), error);
    if (sim->context == nullptr || !start_loop(sim.get(), error)) {
        return nullptr;
    }
    return sim;
}

void sim_stop(sim_t* sim) {
    sim->stopping = true;
    if (sim->running.exchange(false)) {
        engine_wake(sim);
        pthread_join(sim->thread, nullptr);
    }
    const turn_t turn(sim);
    sim->dirty = true;
    engine_unlisten(sim);
    for (const auto& [number, device] : sim->devices) {
        device_close(sim, device.get(), sim_kind_t::close, "here, at the end");
    }
}

void sim_stopper_t::operator()(sim_t* sim) const {
    sim_stop(sim);
    for (const int fd : {sim->epoll_fd, sim->wake_fd}) {
        if (fd >= 0) {
            close(fd);
        }
    }
    delete sim;
}
