// Random clients, agents and a random cloud for SOAK_MINUTES, at a bounded rate; SIGTERM now and
// then. SOAK_SEED repeats a run's choices. After each round of traffic there is a pause in which
// the daemon must be back at the size that it had after its first one.
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>

#include "e2e/harness.h"

namespace {

constexpr int end_ms = 60000;   // by when a request must have its end
constexpr int round_ms = 8000;  // traffic between two pauses
constexpr int client_count = 8;
constexpr long close_kb = 60;   // what a TLS close by the cloud leaves behind
constexpr long slack_kb = 768;  // what the allocator may keep

using random_t = std::mt19937;
using timed_t = std::multimap<std::int64_t, std::string>;

int draw(random_t* random, int from, int to) {
    return std::uniform_int_distribution(from, to)(*random);
}

bool happens(random_t* random, int percent) {
    return draw(random, 1, 100) <= percent;
}

struct soak_t {
    std::atomic<bool> paused{false}, finished{false};
    std::atomic<long> requests{0}, accepted{0}, errors{0}, left{0};
    std::atomic<long> asked{0}, closed_by_tls{0};
};

bool is_closed(const client_t& client) {
    char byte = 0;
    return client.fd < 0 || recv(client.fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

std::string any(client_t* client, int timeout_ms) {
    return client->await([](const std::string&) { return true; }, timeout_ms);
}

// A client's requests, each with a tag that the cloud sends back, and what has come for them.
struct asker_t {
    soak_t* soak;
    client_t client{};
    std::map<std::int64_t, std::string> unanswered{};  // tags by inner_id
    timed_t accepted{};                                // tags by message id
    timed_t responses{};                               // by message id

    void ask(random_t* random) {
        const std::string tag = "tag-" + std::to_string(++soak->requests) + ".";
        const std::string text = R"({"method":"echo","params":{"tag":")" + tag + "\"}}";
        const int flag = draw(random, 0, 1);
        const std::string params = request_params(text, draw(random, 100, 1500), flag);
        unanswered[client.post("device_request", params)] = tag;
    }

    void take(const std::string& message) {
        const std::int64_t inner_id = number_at(message, "inner_id");
        const std::int64_t id = number_at(message, "inner_result.id");
        if (inner_id < 0 && id > 0) {
            responses.emplace(id, text_at(message, "inner_result.response"));
        } else if (inner_id >= 0) {
            const auto mine = unanswered.extract(inner_id);
            ASSERT_FALSE(mine.empty()) << "one answer too many: " << message;
            ++(id > 0 ? soak->accepted : soak->errors);
            if (id > 0) {
                accepted.emplace(id, mine.mapped());
            }
        }
    }

    // A response may overtake the answer that tells its id.
    bool has_ended() const { return unanswered.empty() && responses.size() >= accepted.size(); }

    // Every request that was sent must have had its own response, or its time-out, and no other.
    void settle() const {
        EXPECT_TRUE(has_ended()) << "a request without an end";
        EXPECT_LE(responses.size(), accepted.size()) << "an end too many";
        for (const auto& [id, text] : responses) {
            const auto [from, to] = accepted.equal_range(id);
            const bool is_mine = std::any_of(from, to, [&text = text](const auto& request) {
                return text.find(request.second) != text.npos || text.find("-20002") != text.npos;
            });
            EXPECT_TRUE(is_mine && responses.count(id) == accepted.count(id)) << id << text;
        }
    }
};

void client_run(soak_t* soak, random_t random) {
    while (!soak->paused) {
        asker_t asker{soak};
        const bool stays = happens(&random, 85);
        for (int i = draw(&random, 1, 20); i > 0 && !is_closed(asker.client); --i) {
            asker.ask(&random);
            asker.take(any(&asker.client, draw(&random, 20, 60)));
        }
        const std::int64_t deadline = now_ms() + end_ms;
        while (stays && !asker.has_ended() && !is_closed(asker.client) && now_ms() < deadline) {
            asker.take(any(&asker.client, 100));
        }
        asker.take(stays ? any(&asker.client, 100) : "");  // whatever comes now is too much
        if (stays && !is_closed(asker.client)) {
            asker.settle();
        } else {
            ++soak->left;
        }
        usleep(10000);
    }
}

void agent_run(soak_t* soak, random_t random) {
    while (!soak->finished) {
        client_t agent;
        agent.post("register_callback", R"({"hello_cloud":)" + std::to_string(random() % 2) + "}");
        const std::int64_t leaves = now_ms() + draw(&random, 200, 6000);
        while (!soak->finished && now_ms() < leaves && !is_closed(agent)) {
            const std::string reply = willing_agent(any(&agent, 10));
            const int choice = reply.empty() ? 100 : draw(&random, 1, 100);
            usleep(choice > 90 && choice <= 97 ? random() % 900000 : 0);
            for (int times = choice > 97 ? 0 : (choice < 6 ? 2 : 1); times > 0; --times) {
                (void)agent.send(reply);
            }
        }
        (void)agent.post(happens(&random, 20) ? "reconnect_cloud" : "unregister_callback");
        usleep(10000);
    }
}

void cloud_run(soak_t* soak, sim_t* cloud, random_t random) {
    constexpr sim_kind_t ends[] = {sim_kind_t::close, sim_kind_t::close_tcp, sim_kind_t::reset};
    constexpr const char* orders[] = {R"("stopConnect","attribute":{"reconnectTime":1})",
                                      R"("heartBeatInterval","attribute":{"interval":1})",
                                      R"("illegalDevice")"};
    while (!soak->paused) {
        usleep(static_cast<useconds_t>(draw(&random, 20000, 80000)));
        soak->asked += sim_post(cloud, sim_newest, R"({"method":"getStatus"})") >= 0 ? 1 : 0;
        (void)sim_send(cloud, sim_newest, R"({"id":99999,"error_code":0})");
        const sim_kind_t end = ends[draw(&random, 0, 2)];
        if (happens(&random, 2) && sim_close(cloud, sim_newest, end)) {
            soak->closed_by_tls += end == sim_kind_t::close ? 1 : 0;
        }
        if (happens(&random, 1)) {
            const std::string event = orders[draw(&random, 0, 2)];
            sim_post(cloud, sim_newest,
                     R"({"method":"notifyEvent","params":{"event":)" + event + "}}");
        }
    }
}

struct soak_test : e2e_test {
    soak_t soak;

    // A round, in whose midst the daemon may be stopped.
    void traffic(random_t* random, bool stops) {
        std::vector<std::jthread> agents;
        std::vector<std::jthread> others;
        soak.paused = soak.finished = false;
        for (int i = 0; i < client_count; ++i) {
            others.emplace_back(client_run, &soak, random_t((*random)()));
        }
        others.emplace_back(cloud_run, &soak, cloud.get(), random_t((*random)()));
        agents.emplace_back(agent_run, &soak, random_t((*random)()));
        agents.emplace_back(agent_run, &soak, random_t((*random)()));
        usleep(round_ms * 1000);
        if (stops) {
            daemon.stop();
        }
        soak.paused = true;
        others.clear();
        soak.finished = true;
    }

    // Without clients there are a connection's two tasks and its descriptor, and the descriptors
    // of the connections that the cloud has closed.
    void shrinks(long threads_at_start, long at_start, long* kb) const {
        const long threads = threads_at_start + 2;
        const long most = at_start + 1 + soak.closed_by_tls;
        const std::int64_t deadline = now_ms() + wait_ms();
        while ((daemon.status("Threads:") > threads || daemon.descriptors() > most) &&
               now_ms() < deadline) {
            usleep(50000);
        }
        EXPECT_GE(daemon.status("Threads:"), threads_at_start) << "the daemon has gone";
        EXPECT_LE(daemon.status("Threads:"), threads);
        EXPECT_LE(daemon.descriptors(), most);
        *kb = *kb == 0 ? daemon.status("VmRSS:") : *kb;
        const long growth = daemon.status("VmRSS:") - *kb;
        EXPECT_TRUE(is_slow() || growth < slack_kb + close_kb * soak.closed_by_tls) << growth;
        printf("soak: %ld kB, %ld descriptors more after %ld TLS closes by the cloud\n", growth,
               daemon.descriptors() - at_start - 1, soak.closed_by_tls.load());
    }

    void live(random_t* random, std::int64_t end) {
        const long threads = daemon.status("Threads:");
        const long at_start = daemon.descriptors();
        long kb = 0;
        soak.closed_by_tls = 0;
        for (bool last = false; !last && !HasFailure();) {
            last = happens(random, 25) || now_ms() + round_ms > end;
            traffic(random, last && happens(random, 50));
            if (daemon.pid == 0) {
                return;
            }
            shrinks(threads, at_start, &kb);
        }
        daemon.stop();
    }
};

TEST_F(soak_test, everything_has_one_end_and_nothing_grows) {
    const char* const minutes = getenv("SOAK_MINUTES");
    const char* const chosen = getenv("SOAK_SEED");
    const auto seed = static_cast<unsigned>(chosen != nullptr ? atoll(chosen) : now_ms());
    printf("soak: seed %u\n", seed);
    random_t random(seed);
    sim_behaviour_t behaviour;  // its function is called by the engine's one thread
    behaviour.on_request = [choices = random_t(seed)](const sim_request_t&) mutable {
        const sim_kind_t kind = happens(&choices, 5) ? sim_kind_t::drop : sim_kind_t::echo;
        return sim_step_t{kind, "", happens(&choices, 15) ? draw(&choices, 1, 2000) : 0};
    };
    configure({.heartbeat_ms = 1000, .timeout_ms = 500, .kit = ""}, behaviour);
    const double ms = 60000 * (minutes != nullptr ? atof(minutes) : 0.2);
    const std::int64_t end = now_ms() + static_cast<std::int64_t>(ms);
    int starts = 0;
    for (; now_ms() < end && !HasFailure(); ++starts) {
        std::destroy_at(&daemon);
        std::construct_at(&daemon);
        daemon.launch({"-c", "/tmp/config.cfg"});
        ASSERT_TRUE(daemon.await_log("server start..."));
        live(&random, end);
    }
    const sim_stats_t stats = sim_stats(cloud.get());
    printf(
        "soak: %d daemons, %lu connections; requests: %ld, accepted: %ld, refused: %ld; clients "
        "that left early: %ld; "
        "the cloud's: %ld, answered: %lu\n",
        starts, stats.connections, soak.requests.load(), soak.accepted.load(), soak.errors.load(),
        soak.left.load(), soak.asked.load(), stats.answers);
}

}  // namespace
