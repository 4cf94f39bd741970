// A fleet of devices whose cloud goes away and comes back: when they are back, and what the cloud
// has to bear until then. The waits between attempts are the daemon's own (cloud/back_off.h).
//   cloud_fleet [DEVICES]      the figures as JSON (scripts/fleet.sh)
//
// The model: the cloud goes at 0 and resets every connection within the first second. A device
// tries at once; an attempt that is refused fails at once. Once it is back the cloud takes 2,000
// handshakes a second and refuses what comes beyond. Time goes in steps of 10 ms.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <utility>
#include <vector>

#include "cloud/back_off.h"

namespace {

constexpr std::int64_t kStepMs = 10;
constexpr std::int64_t kStepsPerSecond = 1000 / kStepMs;
constexpr std::size_t kHandshakesPerSecond = 2000;
constexpr int kOutagesMinutes[] = {1, 10, 60};
// A lap of the calendar holds the longest wait.
constexpr std::size_t kLapSteps = 1000000 / kStepMs;
constexpr double kBinGrowth = 1.05;

// For each step the devices that try then, which are no more than the delay that they waited.
using calendar_t = std::vector<std::vector<std::int32_t>>;

// What an interval of the run held; as long as a twentieth of the time until then, so that a plot
// over the logarithm of time has bins of one width.
struct bin_t {
    std::int64_t begin_s;
    std::int64_t attempts;
    std::int64_t most_in_a_second;
    std::int64_t back;  // devices that are back at its end
};

struct fleet_t {
    std::vector<std::int32_t>& at(std::int64_t step) {
        return calendar[static_cast<std::size_t>(step) % kLapSteps];
    }

    bool jitter;
    calendar_t calendar{kLapSteps};
    std::mt19937 random{1};
};

struct run_t {
    std::vector<bin_t> bins;
    std::int64_t attempts = 0;
    std::int64_t half_s = 0, most_s = 0, all_s = 0;  // since the cloud is there again
    std::int64_t back = 0;
    std::int64_t in_this_second = 0;
    std::size_t places = 0;  // handshakes that the cloud still takes in this second
};

void back_off(fleet_t* fleet, std::int64_t now, std::int32_t delay_ms) {
    const std::int32_t next_ms = back_off_next(delay_ms);
    const std::int32_t wait_ms =
        fleet->jitter ? back_off_jitter(next_ms, static_cast<std::uint32_t>(fleet->random()))
                      : next_ms;
    fleet->at(now + wait_ms / kStepMs).push_back(next_ms);
}

// One step's attempts, the first of which take the places that this second still has.
void step(fleet_t* fleet, run_t* run, std::int64_t now) {
    const std::vector<std::int32_t> attempts = std::exchange(fleet->at(now), {});
    const std::size_t taken = std::min(run->places, attempts.size());
    run->places -= taken;
    for (std::size_t i = taken; i < attempts.size(); ++i) {
        back_off(fleet, now, attempts[i]);
    }
    run->back += static_cast<std::int64_t>(taken);
    run->in_this_second += static_cast<std::int64_t>(attempts.size());
}

void second_end(run_t* run, std::int64_t second) {
    const bool is_new =
        run->bins.empty() ||
        static_cast<double>(second) >= static_cast<double>(run->bins.back().begin_s) * kBinGrowth;
    if (is_new) {
        run->bins.push_back({second, 0, 0, 0});
    }
    bin_t& bin = run->bins.back();
    bin.attempts += run->in_this_second;
    bin.most_in_a_second = std::max(bin.most_in_a_second, run->in_this_second);
    bin.back = run->back;
    run->attempts += std::exchange(run->in_this_second, 0);
}

void share_note(run_t* run, std::int64_t size, std::int64_t since_s) {
    if (run->half_s == 0 && run->back * 2 >= size) {
        run->half_s = since_s;
    }
    if (run->most_s == 0 && run->back * 100 >= size * 99) {
        run->most_s = since_s;
    }
    run->all_s = since_s;
}

run_t simulate(std::size_t size, int outage_minutes, bool jitter) {
    fleet_t fleet{jitter};
    for (std::size_t device = 0; device < size; ++device) {
        fleet.at(fleet.random() % kStepsPerSecond).push_back(0);
    }
    run_t run;
    const std::int64_t there = outage_minutes * 60 * kStepsPerSecond;
    const auto all = static_cast<std::int64_t>(size);
    for (std::int64_t now = 0; run.back < all || now % kStepsPerSecond != 0; ++now) {
        if (now % kStepsPerSecond == 0) {
            run.places = now < there ? 0 : kHandshakesPerSecond;
        }
        step(&fleet, &run, now);
        if (now % kStepsPerSecond == kStepsPerSecond - 1) {
            second_end(&run, now / kStepsPerSecond);
            share_note(&run, all, (now + 1 - there) / kStepsPerSecond);
        }
    }
    return run;
}

void print(const run_t& run, int outage_minutes, bool jitter) {
    std::printf(
        "{\"outage_minutes\":%d,\"jitter\":%s,\"attempts\":%lld,\"half_s\":%lld,\"most_s\":%lld,"
        "\"all_s\":%lld,\"bins\":[",
        outage_minutes, jitter ? "true" : "false", static_cast<long long>(run.attempts),
        static_cast<long long>(run.half_s), static_cast<long long>(run.most_s),
        static_cast<long long>(run.all_s));
    const char* separator = "";
    for (const bin_t& bin : run.bins) {
        std::printf("%s[%lld,%lld,%lld,%lld]", separator, static_cast<long long>(bin.begin_s),
                    static_cast<long long>(bin.attempts),
                    static_cast<long long>(bin.most_in_a_second), static_cast<long long>(bin.back));
        separator = ",";
    }
    std::printf("]}");
}

}  // namespace

int main(int argc, char** argv) {
    const std::size_t size = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1000000;
    std::printf("{\"devices\":%zu,\"runs\":[", size);
    const char* separator = "";
    for (const int minutes : kOutagesMinutes) {
        for (const bool jitter : {false, true}) {
            std::printf("%s\n", separator);
            print(simulate(size, minutes, jitter), minutes, jitter);
            separator = ",";
        }
    }
    std::printf("]}\n");
    return 0;
}
