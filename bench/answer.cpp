// Who answers: the device's agent, and the echo behind a broker.
#include <poll.h>
#include <unistd.h>

#include <cstdio>

#include "mqtt.h"
#include "tools.h"

namespace {

// The digits behind the last `"name":` of a text.
std::string_view number_of(std::string_view text, std::string_view name) {
    const std::size_t at = text.rfind(name);
    if (at == std::string_view::npos) {
        return {};
    }
    text.remove_prefix(at + name.size());
    return text.substr(0, text.find_first_not_of("0123456789"));
}

std::string device_answer(std::string_view request) {
    const std::string id(number_of(request, "\"id\":"));
    return cloud_frame(R"({"error_code":0,"result":{"on":false},"id":)" + id + "}");
}

// Nothing for what is no request of the cloud: the answer to the registration.
std::string client_answer(std::string_view message) {
    if (message.find("\"cloud_request\"") == std::string_view::npos) {
        return {};
    }
    const std::string id(number_of(message.substr(0, 24), "\"inner_id\":"));
    return daemon_frame(R"({"inner_id":)" + id +
                        R"(,"inner_error_code":0,"inner_result":)"
                        R"({"response":"{\"error_code\":0,\"result\":{\"on\":false}}"}})");
}

std::string echo(const peer_t& peer, const mqtt_packet_t& packet) {
    if (packet.type != mqtt_publish) {
        return {};
    }
    return mqtt_publish_packet(peer.reply + std::string(packet.topic.substr(peer.prefix.size())),
                               packet.payload);
}

// The answers to all that `in` holds, which is removed.
std::string answers(const peer_t& peer, std::string* in) {
    std::string out;
    std::size_t at = 0, size = 0;
    do {
        const std::string_view rest = std::string_view(*in).substr(at);
        std::string_view text;
        mqtt_packet_t packet;
        if (peer.wire == wire_t::mqtt) {
            size = mqtt_take(rest, &packet);
            out += size > 0 ? echo(peer, packet) : "";
        } else if (peer.wire == wire_t::cloud) {
            size = cloud_take(rest, &text);
            out += size > 0 ? device_answer(text) : "";
        } else {
            size = daemon_take(rest, &text);
            out += size > 0 ? client_answer(text) : "";
        }
        at += size;
    } while (size > 0);
    in->erase(0, at);
    return out;
}

constexpr char registration[] =
    R"({"inner_method":"register_callback","inner_id":1,"inner_params":{"hello_cloud":0}})";

bool input_has_ended() {
    pollfd item = {STDIN_FILENO, POLLIN, 0};
    return poll(&item, 1, 0) > 0;
}

}  // namespace

int answer_run(const peer_t& peer) {
    constexpr int look_ms = 100;
    const line_t line = peer_open(peer, peer_answers);
    if (line.fd < 0 ||
        (peer.wire == wire_t::daemon && !line_send(line, daemon_frame(registration)))) {
        return 1;
    }
    std::puts("ready");
    std::fflush(stdout);
    std::string in;
    while (!input_has_ended()) {
        if (!line_wait(line, look_ms)) {
            continue;
        }
        do {
            if (!line_receive(line, &in) || !line_send(line, answers(peer, &in))) {
                return 0;
            }
        } while (line_wait(line, look_ms));
    }
    return 0;
}
