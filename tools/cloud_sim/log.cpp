#include "cloud_sim/state.h"

bool log_wanted(const sim_t* sim) {
    return sim->config.log_limit > 0 || sim->config.observer;
}

void log_add(sim_t* sim, sim_what_t what, int device, std::string_view text, const head_t& head) {
    sim->dirty = true;
    if (what == sim_what_t::fault) {
        ++sim->stats.faults;
    }
    if (!log_wanted(sim)) {
        return;
    }
    sim_entry_t entry{sim->next_entry++,        what,    device,    std::string(text),
                      std::string(head.method), head.id, head.asked};
    if (sim->config.observer) {
        sim->config.observer(entry);
    }
    if (sim->config.log_limit == 0) {
        return;
    }
    if (sim->log.size() >= sim->config.log_limit) {
        sim->log.pop_front();
    }
    sim->log.push_back(std::move(entry));
}
