// The object "link": whom the daemon takes for the cloud, and that nothing changes without it.
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <numeric>
#include <sstream>

#include "e2e/harness.h"

namespace {

struct peer_t {
    const char* name;
    std::string link;
    sim_config_t cloud;
    std::string expected;  // what the cloud has seen, or what the log says of a refusal
    bool other_ca = false;
};

void PrintTo(const peer_t& item, std::ostream* out) {
    *out << item.name;
}

struct link_test : e2e_test, testing::WithParamInterface<peer_t> {
    void start_link(const peer_t& peer) {
        configure({.link = peer.link}, {}, peer.cloud);
        std::ofstream("/tmp/me.pem") << sim_client_certificate(cloud.get(), "lamp-7");
        if (peer.other_ca) {
            const sim_handle_t other = sim_start({.made = sim_made_t::by_ca});
            std::ofstream("/tmp/ca.pem") << sim_ca(other.get());
        }
        launch();
    }
    static std::string name(const testing::TestParamInfo<peer_t>& info) { return info.param.name; }
};

struct accept_test : link_test {};
struct refuse_test : link_test {};

TEST_P(accept_test, is_connected) {
    start_link(GetParam());
    ASSERT_TRUE(connected());
    EXPECT_TRUE(client_t().echo("here"));
    const auto secured = [](const auto& entry) { return entry.what == sim_what_t::secured; };
    const auto entry = sim_wait_entry(cloud.get(), secured, 0);
    EXPECT_EQ(entry ? entry->text : "", GetParam().expected);
}

TEST_P(refuse_test, is_told_why_and_asked_nothing) {
    start_link(GetParam());
    EXPECT_TRUE(daemon.await_log(GetParam().expected));
    EXPECT_TRUE(daemon.await_log("fail to connect to the SSL, result=-1, error="));
    EXPECT_TRUE(daemon.await_log("fail to reconnect the cloud, code=-1000"));
    EXPECT_TRUE(daemon.await_log("next time to reconnect is 2000 ms"));
    EXPECT_EQ(daemon.count_log(GetParam().expected), 2);
    EXPECT_EQ(sim_stats(cloud.get()).bytes_in, 0);
}

sim_config_t made(sim_made_t made, const std::string& names = "") {
    return {.made = made, .names = names};
}

const sim_config_t signed_one = made(sim_made_t::by_ca);
const sim_config_t asking = {.made = sim_made_t::by_ca, .ask_client = true, .max_tls = 12};
const std::string local = R"({"verify":true,"server_name":"localhost"})";
const std::string lamp = R"({"verify":true,"server_name":"lamp.a.test"})";
const std::string known = R"({"Verify":true,"certificate":"/tmp/me.pem","key":"/tmp/me.pem"})";

const peer_t accept_cases[] = {
    {"a_host_name", local, signed_one, "server name localhost"},
    {"the_domain_an_address", R"({"verify":true})", signed_one, ""},
    {"a_wildcard", lamp, made(sim_made_t::by_ca, "DNS:*.a.test"), "server name lamp.a.test"},
    {"its_own_ca", local, {}, "server name localhost"},
    {"a_name_for_sni_only", R"({"server_name":"b.test"})", {}, "server name b.test", true},
    {"a_client_certificate", known, asking, "client certificate /CN=lamp-7"},
    {"nothing_asked_for", "{}", {}, "", true},
};

const peer_t refuse_cases[] = {
    {"another_ca", local, signed_one, "refused: unable to get local issuer certificate", true},
    {"a_self_signed_one", local, {}, "refused: self-signed certificate, depth=0", true},
    {"an_expired_one", local, made(sim_made_t::expired), "refused: certificate has expired"},
    {"an_early_one", local, made(sim_made_t::not_yet_valid), "refused: certificate is not yet"},
    {"another_name", local, made(sim_made_t::by_ca, "DNS:o[1m.test,IP:10.0.0.1,IP:1::1"),
     "the name wanted is localhost, the names found are DNS:o?[1m.test, IP:10.0.0.1, IP:1::1"},
    {"another_address", known, made(sim_made_t::by_ca, "DNS:127.0.0.1"), "IP address mismatch"},
    {"half_a_wildcard", lamp, made(sim_made_t::by_ca, "DNS:l*.a.test"), "hostname mismatch"},
    {"old_tls", local, {.made = sim_made_t::by_ca, .max_tls = 11}, "the TLS handshake failed: "},
    {"a_stranger", local, asking, "the TLS handshake failed: "},
};

INSTANTIATE_TEST_SUITE_P(, accept_test, testing::ValuesIn(accept_cases), link_test::name);
INSTANTIATE_TEST_SUITE_P(, refuse_test, testing::ValuesIn(refuse_cases), link_test::name);

struct life_test : link_test {};

TEST_F(life_test, the_files_are_read_anew_for_each_attempt) {
    start_link({"", known, asking, "", true});
    for (const char* const line :
         {"verify:           true", "server name:      127.0.0.1", "client cert:      /tmp/me.pem",
          "client key:       /tmp/me.pem", "recover:          false", "jitter:           false"}) {
        EXPECT_TRUE(daemon.await_log(std::string("config_link_print | - ") + line)) << line;
    }
    EXPECT_TRUE(daemon.await_log("next time to reconnect is 1000 ms"));
    unlink("/tmp/me.pem");
    EXPECT_TRUE(daemon.await_log("link.key can't be read: No such file or directory, "));
    EXPECT_TRUE(daemon.await_log("fail to connect the ssl_socket_t, code=-10000"));
    std::ofstream("/tmp/me.pem") << sim_client_certificate(cloud.get(), "lamp-8");
    std::ofstream("/tmp/ca.pem") << sim_ca(cloud.get());
    EXPECT_TRUE(connected());
}

// "level file function message" without what differs from run to run; empty for what is no line of
// the log.
std::string line_normal(const std::string& line) {
    std::istringstream fields(line);
    std::string date, time, bar, level, thread, file, function, dash, message;
    fields >> date >> time >> bar >> level >> bar >> thread >> bar >> file >> bar >> function >>
        bar >> dash;
    std::getline(fields.ignore(), message);
    for (const std::string mark : {"0x", "cloud-kit: "}) {
        const std::size_t at = message.find(mark);
        message = at == std::string::npos ? message : message.substr(0, at) + mark + "*";
    }
    for (const std::string mark :
         {"port:  ", "port=", "IPC send to ", "IPC receive from ", "socket: "}) {
        const std::size_t at = message.find(mark);
        if (at != std::string::npos) {
            const std::size_t rest = message.find_first_not_of(" 0123456789", at + mark.size());
            message.replace(at + mark.size(), rest - at - mark.size(), "*");
        }
    }
    file.resize(std::min(file.size(), file.find(':')));
    return dash != "-" ? "" : level + " " + file + " " + function + " " + message + "\n";
}

// Threads take turns as they like.
std::string sorted(std::vector<std::string> lines) {
    std::sort(lines.begin(), lines.end());
    return std::accumulate(lines.begin(), lines.end(), std::string());
}

TEST_F(life_test, without_the_object_every_line_is_as_ever) {
    configure({.timeout_ms = 20000});
    sim_unlisten(cloud.get());
    launch();
    EXPECT_TRUE(daemon.await_log("next time to reconnect is 1000 ms"));
    EXPECT_TRUE(sim_relisten(cloud.get()));
    ASSERT_TRUE(connected());
    EXPECT_TRUE(client_t().echo("here"));
    EXPECT_TRUE(daemon.await_log("client is closed, socket: "));
    daemon.stop();
    std::vector<std::string> lines = daemon.log();
    std::transform(lines.begin(), lines.end(), lines.begin(), line_normal);
    // What several lines have in common stands there once, before their messages.
    std::ifstream expected(E2E_SOURCE "/tests/e2e/life.txt");
    std::vector<std::string> wanted;
    for (std::string level, file, function, texts; expected >> level >> file >> function;) {
        std::getline(expected.ignore(), texts);
        const std::string head = level + " " + file + " " + function + " ";
        for (std::size_t at = 0, end = 0; end != std::string::npos; at = end + 3) {
            end = texts.find(" ; ", at);
            wanted.push_back(head + texts.substr(at, end - at) + "\n");
        }
    }
    EXPECT_EQ(sorted(lines), sorted(wanted));
}

}  // namespace
