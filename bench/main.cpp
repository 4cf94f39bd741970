// cloud_bench: what a benchmark run needs besides the gateways (see scripts/bench.sh).

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "tools.h"

namespace {

int usage() {
    std::fputs(
        "cloud_bench cloud [CERTIFICATE]\n"
        "cloud_bench answer PEER\n"
        "cloud_bench load PEER CLIENTS BYTES SECONDS [PID...]\n"
        "cloud_bench on PEER SECONDS\n"
        "cloud_bench first PEER SINCE_NS [LOG COMMAND [ARGUMENT...]]\n"
        "cloud_bench anew PEER\n"
        "PEER: cloud@ADDRESS, daemon@ADDRESS or mqtt:PREFIX:REPLY@ADDRESS\n"
        "ADDRESS: tls:PORT, tcp:PORT or /PATH\n",
        stderr);
    return 2;
}

int load(const peer_t& peer, const std::vector<std::string>& arguments) {
    load_t load;
    load.peer = peer;
    load.clients = std::atoi(arguments[0].c_str());
    load.bytes = static_cast<std::size_t>(std::atoi(arguments[1].c_str()));
    load.seconds = std::atof(arguments[2].c_str());
    for (std::size_t i = 3; i < arguments.size(); ++i) {
        load.gateway.push_back(std::atoi(arguments[i].c_str()));
    }
    return load_run(load);
}

int first(const peer_t& peer, const std::vector<std::string>& arguments) {
    const std::int64_t since = std::atoll(arguments[0].c_str());
    if (arguments.size() < 3) {
        return ask_first(peer, since, {}, "");
    }
    return ask_first(peer, since, {arguments.begin() + 2, arguments.end()}, arguments[1]);
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.empty()) {
        return usage();
    }
    if (words[0] == "cloud") {
        return cloud_run(words.size() > 1 ? words[1] : "");
    }
    peer_t peer;
    if (words.size() < 2 || !peer_parse(words[1], &peer)) {
        return usage();
    }
    const std::vector<std::string> rest(words.begin() + 2, words.end());
    if (words[0] == "answer") {
        return answer_run(peer);
    }
    if (words[0] == "load" && rest.size() >= 3) {
        return load(peer, rest);
    }
    if (words[0] == "on" && rest.size() == 1) {
        return ask_on(peer, std::atof(rest[0].c_str()));
    }
    if (words[0] == "anew") {
        return ask_first_anew(words[1]);
    }
    if (words[0] == "first" && !rest.empty()) {
        return first(peer, rest);
    }
    return usage();
}
