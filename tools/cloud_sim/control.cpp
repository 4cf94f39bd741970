// What other threads call: actions, waits and look-ups.

#include <algorithm>

#include "cloud_sim/engine.h"
#include "cloud_sim/state.h"

namespace {

// Waits for `done`, which is asked with the lock held. True when it came true.
template <typename done_t>
bool wait_for(sim_t* sim, std::unique_lock<std::mutex>& guard, int timeout_ms, done_t done) {
    const auto deadline = steady_t::now() + std::chrono::milliseconds(std::max(timeout_ms, 0));
    bool came_true = false;
    sim->changed.wait_until(guard, deadline, [&] {
        came_true = done();
        return came_true || sim->stopping;
    });
    return came_true;
}

// Sends the request and notes that its answer is wanted. The id, or -1.
std::int64_t ask(sim_t* sim, int* device_number, std::string_view text, bool waited) {
    const turn_t turn(sim);
    sim_device_t* const device = device_find(sim, *device_number);
    if (device == nullptr) {
        return -1;
    }
    *device_number = device->number;
    const std::int64_t id = script_ask(sim, device, text);
    if (id >= 0) {
        device->asked[id] = {waited, std::nullopt};
        device_flush(sim, device);
    }
    return id;
}

}  // namespace

std::uint16_t sim_port(const sim_t* sim) {
    return sim->port;
}

std::string sim_certificate(const sim_t* sim) {
    return sim->certificate;
}

void sim_set_behaviour(sim_t* sim, sim_behaviour_t behaviour) {
    const turn_t turn(sim);
    sim->behaviour = std::move(behaviour);
}

sim_behaviour_t sim_get_behaviour(sim_t* sim) {
    const turn_t turn(sim);
    return sim->behaviour;
}

void sim_unlisten(sim_t* sim) {
    const turn_t turn(sim);
    engine_unlisten(sim);
}

bool sim_relisten(sim_t* sim, std::string* error) {
    std::string unused;
    const turn_t turn(sim);
    return sim->listen_fd >= 0 || engine_listen(sim, error != nullptr ? error : &unused);
}

bool sim_do(sim_t* sim, int device, const sim_step_t& step) {
    const turn_t turn(sim);
    sim_device_t* const target = device_find(sim, device);
    if (target == nullptr) {
        return false;
    }
    if (step.delay_ms > 0) {
        engine_schedule(sim, target->number, step);
        return true;
    }
    if (!script_perform(sim, target, step)) {
        return false;
    }
    device_flush(sim, target);
    if (step.repeat_ms > 0 && target->fd >= 0) {
        sim_step_t next = step;
        next.delay_ms = step.repeat_ms;
        engine_schedule(sim, target->number, next);
    }
    return true;
}

bool sim_send(sim_t* sim, int device, std::string_view text) {
    return sim_do(sim, device, {sim_kind_t::send, std::string(text)});
}

bool sim_send_raw(sim_t* sim, int device, std::string_view bytes) {
    return sim_do(sim, device, {sim_kind_t::raw, std::string(bytes)});
}

bool sim_close(sim_t* sim, int device, sim_kind_t how) {
    return sim_do(sim, device, {how, {}});
}

std::optional<std::string> sim_request(sim_t* sim, int device, std::string_view text,
                                       int timeout_ms) {
    const std::int64_t id = ask(sim, &device, text, true);
    if (id < 0) {
        return std::nullopt;
    }
    std::optional<std::string> answer;
    std::unique_lock guard(sim->lock);
    wait_for(sim, guard, timeout_ms, [&] {
        const sim_device_t* const target = device_find(sim, device);
        if (target == nullptr) {
            return true;
        }
        const auto asked = target->asked.find(id);
        answer = asked != target->asked.end() ? asked->second.answer : std::nullopt;
        return answer.has_value();
    });
    if (sim_device_t* const target = device_find(sim, device)) {
        target->asked.erase(id);
    }
    return answer;
}

std::int64_t sim_post(sim_t* sim, int device, std::string_view text) {
    return ask(sim, &device, text, false);
}

std::size_t sim_release(sim_t* sim, std::size_t count, bool newest_first) {
    const turn_t turn(sim);
    sim->dirty = true;
    std::size_t released = 0;
    for (; released < count && !sim->held.empty(); ++released) {
        const auto at = newest_first ? std::prev(sim->held.end()) : sim->held.begin();
        const held_t held = std::move(*at);
        sim->held.erase(at);
        sim->stats.held = sim->held.size();
        script_release(sim, held);
    }
    return released;
}

bool sim_wait_connections(sim_t* sim, std::uint64_t count, int timeout_ms) {
    const auto enough = [&](const sim_stats_t& stats) { return stats.connections >= count; };
    return sim_wait_stats(sim, enough, timeout_ms);
}

bool sim_wait_handshakes(sim_t* sim, std::uint64_t count, int timeout_ms) {
    const auto enough = [&](const sim_stats_t& stats) { return stats.handshakes >= count; };
    return sim_wait_stats(sim, enough, timeout_ms);
}

bool sim_wait_stats(sim_t* sim, const std::function<bool(const sim_stats_t&)>& enough,
                    int timeout_ms) {
    std::unique_lock guard(sim->lock);
    return wait_for(sim, guard, timeout_ms, [&] { return enough(sim->stats); });
}

std::optional<sim_entry_t> sim_wait_entry(sim_t* sim, const sim_predicate_fn& matches,
                                          int timeout_ms, std::uint64_t from) {
    std::optional<sim_entry_t> found;
    std::unique_lock guard(sim->lock);
    wait_for(sim, guard, timeout_ms, [&] {
        const std::uint64_t first = sim->next_entry - sim->log.size();
        for (from = std::max(from, first); from < sim->next_entry; ++from) {
            const sim_entry_t& entry = sim->log[from - first];
            if (matches(entry)) {
                found = entry;
                return true;
            }
        }
        return false;
    });
    return found;
}

std::optional<sim_entry_t> sim_wait_received(sim_t* sim, std::string_view method, int timeout_ms,
                                             std::uint64_t from) {
    const auto matches = [&](const sim_entry_t& entry) {
        return entry.what == sim_what_t::received && entry.method == method;
    };
    return sim_wait_entry(sim, matches, timeout_ms, from);
}

std::uint64_t sim_mark(sim_t* sim) {
    const turn_t turn(sim);
    return sim->next_entry;
}

std::vector<sim_entry_t> sim_log(sim_t* sim, std::uint64_t from) {
    const turn_t turn(sim);
    const std::uint64_t first = sim->next_entry - sim->log.size();
    const std::uint64_t skipped =
        from > first ? std::min<std::uint64_t>(from - first, sim->log.size()) : 0;
    return {sim->log.begin() + static_cast<std::ptrdiff_t>(skipped), sim->log.end()};
}

sim_stats_t sim_stats(sim_t* sim) {
    const turn_t turn(sim);
    return sim->stats;
}

std::vector<int> sim_devices(sim_t* sim) {
    const turn_t turn(sim);
    std::vector<int> open;
    for (const auto& [number, device] : sim->devices) {
        if (device->fd >= 0) {
            open.push_back(number);
        }
    }
    return open;
}
