// The tools and the examples as their users run them: each fault is told in one line, with the exit
// code that the manual names.
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "e2e/harness.h"

namespace {

// A shell's command under way, with the tools in its PATH; `exec` in it lets a signal through.
struct tool_t {
    explicit tool_t(const std::string& command) {
        const std::string line = "PATH=" E2E_TOOLS ":" E2E_TOOLS "/examples:$PATH; cd /tmp; {\n" +
                                 command + "\n} </dev/null >" + name + ".out 2>" + name;
        pid = fork();
        if (pid == 0) {
            signal(SIGPIPE, SIG_DFL);
            execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
            _exit(127);
        }
    }
    // The exit code, and behind it what came on standard error: "1 cloud_ctl: ...\n".
    std::string end(int signal_number = 0) const {
        kill(pid, signal_number);
        int status = 0;
        waitpid(pid, &status, 0);
        return std::to_string(WEXITSTATUS(status)) + " " + content(name);
    }
    static std::string content(const std::string& file) {
        std::stringstream text;
        text << std::ifstream("/tmp/" + file).rdbuf();
        return text.str();
    }
    static inline int count = 0;
    std::string name = std::to_string(++count);
    pid_t pid;
};

struct row_t {
    char code;
    std::string command;
    std::string says;         // in one line; empty: nothing
    std::string answer = "";  // that the cloud gets
};

void expect_told(const row_t& row, const std::string& ended) {
    const bool one_line = ended.find('\n') == (row.says.empty() ? ended.npos : ended.size() - 1);
    EXPECT_TRUE(ended[0] == row.code && one_line && ended.find(row.says) != ended.npos)
        << row.command << "\nshould end with " << row.code << ": " << row.says << "\nended with "
        << ended;
}

const std::string client_py = "python3 " E2E_SOURCE "/examples/client/client.py ";

}  // namespace

using tools_test = e2e_test;

TEST_F(tools_test, wrong_use_and_wrong_input) {
    configure();
    const std::string port = std::to_string(sim_port(cloud.get()));
    EXPECT_EQ(tool_t(R"(echo no JSON >text; >empty; echo '{"odd":1}' >odd
        echo '{"answers":[{"method":"x","delay_ms":"1"}]}' >type
        python3 -c 'import socket; socket.socket(socket.AF_UNIX).bind("stale")')")
                  .end(),
              "0 ");
    const row_t rows[] = {
        {'2', "cloud_ctl", "subcommand"},
        {'2', "cloud_ctl odd", "no such command or option: odd"},
        {'2', "cloud_ctl request '{} {}'", "not a JSON object"},
        {'2', "cloud_ctl request {} --timeout 0", "--timeout"},
        {'2', "cloud_ctl register --exec ''", "--exec: is empty"},
        {'2', "cloud_ctl log --id -1", "--id: Value -1 not in range"},
        {'2', "cloud_sim --odd", "--odd"},
        {'2', "cloud_sim --port 65536", "--port: Value 65536 not in range"},
        {'2', "cloud_sim --hello odd", "no such hello: odd"},
        {'2', "example_client", "usage: "},
        {'2', "example_agent odd", "usage: "},
        {'2', client_py, "usage: "},
        {'1', "cloud_ctl request {}", "(-1101): /tmp/cloud_svr: No such file"},
        {'1', "cloud_ctl reconnect --socket stale", "(-1101): stale: nobody listens"},
        {'1', "cloud_ctl register --hello-cloud missing", "missing: No such file"},
        {'1', "cloud_ctl register --hello-cloud /tmp", "/tmp: Is a directory"},
        {'1', "cloud_ctl check missing", "missing: cannot be read: No such file"},
        {'1', "cloud_ctl check /tmp", "/tmp: cannot be read: Is a directory"},
        {'1', "cloud_ctl check text", "text: is not JSON"},
        {'1', "cloud_ctl check odd", R"(odd: node "cloud" does not exist)"},
        {'1', "cloud_ctl check config.cfg >/dev/full", "standard output: No space"},
        {'1', "cloud_ctl check config.cfg >&-", "standard output: Bad file"},
        {'1', "yes | { cloud_ctl log; echo $? >code; } | head -n 1; exit $(cat code)",
         "Broken pipe"},
        {'1', "cloud_ctl log </tmp", "standard input: Is a directory"},
        {'1', "cloud_sim --port " + port, ":" + port + ": Address already in use"},
        {'1', "cloud_sim --scenario missing", "missing: No such file"},
        {'1', "cloud_sim --scenario /tmp", "/tmp: Is a directory"},
        {'1', "cloud_sim --scenario empty", "empty is not JSON"},
        {'1', "cloud_sim --scenario odd", R"(odd: unknown key "odd")"},
        {'1', "cloud_sim --scenario type", R"(type: "delay_ms" is not a whole number)"},
        {'1', "cloud_sim --port 0 >/dev/full", "standard output: No space"},
        {'1', "example_client {}", "the daemon cannot be reached (-1101)"},
        {'1', client_py + "{}", "/tmp/cloud_svr: No such file"},
        {'1', E2E_SOURCE "/scripts/demo.sh odd", "usage: "},
        {'1', E2E_SOURCE "/scripts/test.sh odd", "no build preset odd"},
    };
    for (const row_t& row : rows) {
        expect_told(row, tool_t(row.command).end());
    }
    EXPECT_EQ(tool_t("cloud_ctl log <empty; cloud_ctl check config.cfg").end(), "0 ");
}

TEST_F(tools_test, a_full_daemon_and_one_that_stops_meanwhile) {
    start({.clients = 4, .kit = ""});
    const tool_t agent(R"(mkfifo hangs goes_on
        exec cloud_ctl register --exec 'read asked
            case $asked in *hang*) echo >hangs; read line <goes_on;; esac
            echo "{\"error_code\":0}"')");
    ASSERT_TRUE(sim_wait_handshakes(cloud.get(), 1, wait_ms()));
    behave([](sim_behaviour_t* behaviour) { behaviour->requests = sim_kind_t::drop; });
    std::vector<tool_t> waiting = {agent};
    const std::string asks[] = {"cloud_ctl request ", "example_client ", client_py};
    for (const std::string& ask : asks) {
        waiting.emplace_back(ask + R"('{"method":"late"}')");
    }
    const auto all_wait = [](const sim_stats_t& stats) { return stats.requests == 3; };
    ASSERT_TRUE(sim_wait_stats(cloud.get(), all_wait, wait_ms()));
    for (const std::string& ask : asks) {
        expect_told({'1', ask, "the daemon has no room for another client"},
                    tool_t(ask + "{}").end());
    }
    ASSERT_GT(sim_post(cloud.get(), sim_newest, R"({"method":"hang"})"), 0);
    std::ifstream("/tmp/hangs").get();
    daemon.stop();
    std::ofstream("/tmp/goes_on") << "\n";
    for (const tool_t& tool : waiting) {
        expect_told({'1', "waiting", "the daemon closed the connection"}, tool.end());
    }
}

TEST_F(tools_test, commands_that_answer_the_cloud) {
    start({.kit = ""});
    const row_t rows[] = {
        {'0', R"(echo "{\"error_code\": 0,"; echo " \"result\": 7}")", "", R"("result":7)"},
        {'0', "exit 3", "the command failed with exit status 3", "-1"},
        {'0', "kill -9 $$", "the command was ended by signal 9", "-1"},
        {'0', "sleep 600 & sleep 600", "the command was ended: it took longer than 200 ms", "-1"},
        {'0', "yes", "the command was ended: it gave more than 1 MiB", "-1"},
        {'0', "true", "the command gave no output", "-1"},
        {'0', "echo {} {}", "the command's output is not a JSON object", "-1"},
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        const int time_ms = rows[i].command.starts_with("sleep") ? 200 : wait_ms();
        const tool_t agent("exec cloud_ctl register --timeout " + std::to_string(time_ms) +
                           " --exec '" + rows[i].command + "'");
        ASSERT_TRUE(daemon.await_log(R"({"inner_id":1,"inner_error_code":0})", i + 1));
        const auto answer = sim_request(cloud.get(), sim_newest, R"({"method":"ask"})", wait_ms());
        EXPECT_NE(answer.value_or("").find(rows[i].answer), std::string::npos) << rows[i].command;
        expect_told(rows[i], agent.end(SIGTERM));
    }
}

TEST_F(tools_test, examples_of_clients) {
    start({.kit = ""});
    const tool_t agent("exec example_agent");
    ASSERT_TRUE(sim_wait_handshakes(cloud.get(), 1, wait_ms()));
    for (const std::string& client : {std::string("example_client "), client_py}) {
        const tool_t tool(client + R"('{"method":"echo","params":{"hello":"cloud"}}')");
        EXPECT_EQ(tool.end(), "0 ");
        EXPECT_EQ(text_at(tool_t::content(tool.name + ".out"), "result.hello"), "cloud");
    }
    const auto told = sim_request(cloud.get(), sim_newest, R"({"method":"who"})", wait_ms());
    EXPECT_EQ(text_at(told.value_or(""), "result.model"), "example");
    EXPECT_EQ(agent.end(SIGTERM), "0 ");
}

TEST_F(tools_test, example_of_a_plug_in) {
    const char* const other = getenv("CLOUD_SVR_DAEMON");
    const std::filesystem::path path = other != nullptr ? other : E2E_DAEMON;
    std::filesystem::copy(path.parent_path() / "examples/libcloud-kit.so", "/tmp/kit_example.so");
    setenv("CLOUD_SVR_KITS", "/tmp", 1);
    connect({.kit = "example"});
    const auto ask = [&](const std::string& request) {
        return sim_request(cloud.get(), sim_newest, request, wait_ms()).value_or("");
    };
    EXPECT_EQ(number_at(ask(R"({"method":"setSwitch","params":{"on":true}})"), "error_code"), 0);
    EXPECT_NE(ask(R"({"method":"getSwitch"})").find(R"("on":true)"), std::string::npos);
    EXPECT_EQ(number_at(ask(R"({"method":"odd"})"), "error_code"), -1);
}
