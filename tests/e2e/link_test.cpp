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

// What several lines have in common stands once before their messages.
const char* const life = R"log(DEBUG main.c main start... ; stop...
DEBUG main.c signals_install register on_stop to handle SIGTERM ; ignore SIGINT
DEBUG config.c config_load begin to load the configure... ; end to load the configure...
DEBUG config.c config_print certificate:      /tmp/ca.pem ; domain:           127.0.0.1 ; port:  * ; heartbeat(ms):    240000
DEBUG config.c config_print time out(ms):     20000 ; maximum message:  1000 ; maximum client:   20 ; memory limit(kb): 0 ; cloud-kit: *
DEBUG cloud_svr.c cloud_svr_init begin to initialize the server... ; end to initialize the server...
DEBUG inner_api.c inner_api_init begin to initialize the API... ; end to initialize the API...
DEBUG cloud_kit.c cloud_kit_init open the cloud-kit.so ; respond_cloud_fn: 0x* ; build_request_of_hello_cloud_fn: 0x*
DEBUG cloud_kit.c cloud_kit_init recv_response_of_hello_cloud_fn: 0x*
DEBUG msg_id_pool.c msg_id_pool_init begin to initialize the message id pool... ; end to initialize the message id pool...
DEBUG ssl_socket.c ssl_socket_init begin to initialize the ssl_socket_t... ; end to initialize the ssl_socket_t...
DEBUG cloud_svr.c cloud_svr_start server start...
DEBUG cloud_svr.c cloud_svr_wait wait for the work
DEBUG session.c task_reconnect begin to connect the cloud... ; end to connect the cloud...
DEBUG dns.c ip_list_parse begin to parse the domain... ; end to parse the domain... ; begin to parse the domain...
DEBUG dns.c ip_list_parse end to parse the domain...
DEBUG dns.c address_add IP: 127.0.0.1 ; IP: 127.0.0.1
DEBUG session.c transport_connect_unsafe using IP: 127.0.0.1 ; using IP: 127.0.0.1
DEBUG ssl_socket.c ssl_socket_connect begin to connect the ssl_socket_t... ; begin to connect the ssl_socket_t...
DEBUG ssl_socket.c ssl_socket_connect end to connect the ssl_socket_t...
ERROR ssl_socket.c tcp_finish fail to connect the server, error=111, Connection refused
DEBUG ssl_socket.c tls_close close the socket ; shut down and free the SSL ; free the SSL_CTX ; close the socket
ERROR ssl_socket.c ssl_socket_connect fail to connect the ssl_socket_t, code=-1000, host=127.0.0.1, port=*
ERROR session.c transport_connect_unsafe fail to connect the cloud, error=-1000
ERROR session.c do_connect fail to connect to the cloud, error=-1000
WARN session.c session_reconnect fail to reconnect the cloud, code=-1000 ; next time to reconnect is 1000 ms
DEBUG cloud_svr.c cloud_svr_worker begin to work... ; end to work...
DEBUG ssl_socket.c tcp_finish succeed to connect the server.
DEBUG handshake.c handshake begin to handshake... ; end to handshake...
DEBUG handshake.c handshake_hello_cloud begin to handshake helloCloud...
INFO ssl_socket.c sent_log client send: {"method":"helloCloud","params":{"kit":1},"id":1}
INFO ssl_socket.c sent_log client send: {"method":"echo","params":"here","id":2}
INFO ssl_socket.c parse_body client receive: {"error_code":0,"result":{"illegalType":0},"id":1}
INFO ssl_socket.c parse_body client receive: {"error_code":0,"result":"here","id":2}
DEBUG handshake.c check_response_of_hello_cloud end to handshake helloCloud...
DEBUG session.c task_receive begin to receive from the cloud... ; end to receive from the cloud...
DEBUG session.c task_timeout_check begin to check the time out... ; end to check the time out...
INFO ../../cloud-mod/util/ipc_socket.c sent_code IPC send to *: {"inner_method":"server_notify","inner_params":{"type":0}}
INFO ../../cloud-mod/util/ipc_socket.c sent_code IPC send to *: {"inner_id":1,"inner_error_code":0,"inner_result":{"id":2}}
INFO ../../cloud-mod/util/ipc_socket.c sent_code IPC send to *: {"inner_error_code":0,"inner_result":{"id":2,"response":"{\"error_code\":0,\"result\":\"here\"}"}}
INFO ../../cloud-mod/util/ipc_socket.c ipc_socket_read IPC receive from *: {"inner_method":"device_request","inner_id":1,"inner_params":{"request":"{\"method\":\"echo\",\"params\":\"here\"}","timeout_ms":-1,"flag":0}}
DEBUG recv_from_ssl.c task_work_response begin the task of notifying the response... ; end the task of notifying the response...
DEBUG cloud_svr.c cloud_svr_work_on_message client is closed, socket: *
DEBUG main.c on_stop receive SIGTERM
DEBUG cloud_svr.c cloud_svr_stop begin to stop the server... ; end to stop the server...
DEBUG cloud_svr.c cloud_svr_destroy begin to destroy the server... ; end to destroy the server...
DEBUG inner_api.c inner_api_destroy begin to destroy the API... ; end to destroy the API...
DEBUG ssl_socket.c ssl_socket_disconnect begin to disconnect the ssl_socket_t... ; end to disconnect the ssl_socket_t...
DEBUG ssl_socket.c ssl_socket_destroy begin to destroy the ssl_socket_t... ; end to destroy the ssl_socket_t...
DEBUG msg_id_pool.c msg_id_pool_destroy begin to destroy the message id pool... ; free the data in the message id pool
DEBUG msg_id_pool.c msg_id_pool_destroy end to destroy the message id pool...
DEBUG inner_api.c parts_destroy unload the cloud-kit.so
DEBUG config.c config_free begin to free the configure... ; end to free the configure...
)log";

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
    std::istringstream expected(life);
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
