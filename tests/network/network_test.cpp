// Two hosts of our own, the daemon's and the cloud's, each in a network namespace. The line between
// them is a TUN device on either side and a thread that carries the packets, as badly as wanted:
// unlike tc's netem it is there whatever the kernel was built with.
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <map>
#include <random>

#include "e2e/harness.h"

namespace {

bool run(const std::string& command) {
    return system((command + " >/dev/null 2>&1").c_str()) == 0;
}

int tun_open(const char* name) {
    ifreq request = {};
    strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    const int fd = open("/dev/net/tun", O_RDWR | O_CLOEXEC | O_NONBLOCK);
    return ioctl(fd, TUNSETIFF, &request) == 0 ? fd : -1;
}

struct line_t {
    std::atomic<bool> ended{false}, cut{false};
    std::atomic<unsigned> loss_percent{0}, delay_ms{0};
    int ends[2] = {-1, -1};

    // A packet takes up to twice the wanted time, so many overtake others.
    void carry() {
        std::mt19937 random(1);
        std::multimap<std::int64_t, std::pair<int, std::string>> under_way;
        char packet[2048];
        while (!ended) {
            pollfd items[] = {{ends[0], POLLIN, 0}, {ends[1], POLLIN, 0}};
            (void)poll(items, 2, 2);
            for (const int from : {0, 1}) {
                const ssize_t size = read(ends[from], packet, sizeof packet);
                const bool is_lost = cut || random() % 100 < loss_percent;
                if (size > 0) {
                    const std::string bytes(packet, is_lost ? 0 : size);
                    under_way.emplace(now_ms() + random() % (2 * delay_ms + 1),
                                      std::pair(ends[1 - from], bytes));
                }
            }
            for (; !under_way.empty() && under_way.begin()->first <= now_ms();
                 under_way.erase(under_way.begin())) {
                const auto& [to, bytes] = under_way.begin()->second;
                (void)!write(to, bytes.data(), bytes.size());
            }
        }
    }
};

struct network_test : e2e_test {
    settings_t settings = {.heartbeat_ms = 500, .timeout_ms = 1000};
    line_t line;
    std::thread carrier;

    bool hosts_make() {
        const bool spaces = mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0 &&
                            unshare(CLONE_NEWNET) == 0 && run("ip netns add device");
        line.ends[0] = spaces ? tun_open("cloud") : -1;
        line.ends[1] = spaces ? tun_open("device") : -1;
        carrier = std::thread([this] { line.carry(); });
        return line.ends[1] >= 0 && run("ip link set device netns device") &&
               run("ip link set cloud up && ip -n device link set device up") &&
               run("ip addr add 10.9.0.1/24 dev cloud") &&
               run("ip -n device addr add 10.9.0.9/24 dev device");
    }

    // The cloud at that address, and its name with it.
    void cloud_start(const std::string& address, std::uint16_t port) {
        std::ofstream("/tmp/hosts") << address << " cloud.test\n";
        ASSERT_TRUE(run("mount --bind /tmp/hosts /etc/hosts"));
        sim_config_t config;
        config.address = address;
        config.port = port;
        cloud = sim_start(config);
        ASSERT_NE(cloud, nullptr);
    }

    // The daemon on its host, connected to the cloud on the other one.
    void SetUp() override {
        if (!hosts_make()) {
            GTEST_SKIP() << "no network namespaces, or no /dev/net/tun";
        }
        ASSERT_TRUE(run("ip link set lo up"));
        configure(settings);
        cloud_start("10.9.0.1", sim_port(cloud.get()));
        ASSERT_TRUE(run("sed -i s/127.0.0.1/cloud.test/ /tmp/config.cfg"));
        setenv("CLOUD_SVR_RUNNER", "ip netns exec device", 1);
        daemon.launch({"-c", "/tmp/config.cfg"});
        ASSERT_TRUE(connected());
    }

    void TearDown() override {
        e2e_test::TearDown();
        line.ended = true;
        carrier.join();
    }
};

struct recovering_network_test : network_test {
    recovering_network_test() { settings = {.link = R"({"recover":true})"}; }
};

TEST_F(network_test, loses_delays_and_reorders) {
    line.delay_ms = 200;
    line.loss_percent = 20;
    client_t client;
    for (int batch = 0; batch < 3; ++batch) {
        std::vector<sent_t> requests;
        for (int i = 0; i < 10; ++i) {
            requests.push_back(client.request(R"({"method":"echo"})", 5000, 1));
        }
        for (const sent_t& request : requests) {
            EXPECT_EQ(request.code, 0);
            EXPECT_TRUE(request.id == 0 || !client.response(request.id).empty()) << request.id;
        }
    }
    line.delay_ms = line.loss_percent = 0;
    EXPECT_TRUE(works());
}

TEST_F(network_test, is_cut_without_a_word) {
    client_t client;
    line.cut = true;
    const sent_t request = client.request(R"({"method":"echo"})", 300);
    EXPECT_NE(client.response(request.id).find("-20002"), std::string::npos);
    EXPECT_TRUE(daemon.await_log("fail to send the heartbeat, error=-20002"));
    EXPECT_TRUE(daemon.await_log("next time to reconnect is 1000 ms"));
    line.cut = false;
    EXPECT_TRUE(connected(2));
    EXPECT_TRUE(works());
}

// The kernel's probes find it, without a heartbeat, a minute after the last sign of life. The
// connection has held for more than that, so an attempt, lost on the line as well, comes at once.
TEST_F(recovering_network_test, is_cut_without_a_word) {
    (void)client_t().await_method("none", 3000);
    EXPECT_TRUE(works());
    line.cut = true;
    ASSERT_TRUE(daemon.await_log("the connection is lost: Connection timed out", 1, 120000));
    ASSERT_TRUE(daemon.await_log("begin to connect the ssl_socket_t...", 2));
    EXPECT_EQ(daemon.count_log("next time to reconnect"), 0U);
    line.cut = false;
    EXPECT_TRUE(connected(2));
    EXPECT_TRUE(works());
}

TEST_F(network_test, has_the_cloud_at_another_address) {
    const std::uint16_t port = sim_port(cloud.get());
    ASSERT_TRUE(run("ip addr del 10.9.0.1/24 dev cloud && ip addr add 10.9.0.2/24 dev cloud"));
    cloud_start("10.9.0.2", port);
    EXPECT_TRUE(sim_wait_handshakes(cloud.get(), 1, wait_ms()));
    EXPECT_TRUE(works());
}

}  // namespace
