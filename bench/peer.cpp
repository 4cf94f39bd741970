#include "peer.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "mqtt.h"

namespace {

constexpr int open_ms = 10000;

std::string frame(std::string_view text, int length_size) {
    std::string bytes = "\xA1\xB2";
    for (int shift = 8 * (length_size - 1); shift >= 0; shift -= 8) {
        bytes += static_cast<char>(text.size() >> shift);
    }
    return bytes.append(text);
}

std::size_t take(std::string_view in, std::size_t length_size, std::string_view* text) {
    const std::size_t header = 2 + length_size;
    if (in.size() < header) {
        return 0;
    }
    if (in.substr(0, 2) != "\xA1\xB2") {
        std::fprintf(stderr, "cloud_bench: a frame without its magic\n");
        std::exit(1);
    }
    std::size_t length = 0;
    for (std::size_t i = 2; i < header; ++i) {
        length = length << 8 | static_cast<unsigned char>(in[i]);
    }
    if (in.size() - header < length) {
        return 0;
    }
    *text = in.substr(header, length);
    return header + length;
}

bool holds(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

std::string request_text(std::size_t bytes, std::string_view tail) {
    const std::string head = R"({"method":"echo","params":{"data":")";
    const std::size_t fixed = head.size() + 2 + tail.size();
    return head + std::string(bytes > fixed ? bytes - fixed : 0, 'x') + "\"}" + std::string(tail);
}

std::string escaped(const std::string& text) {
    std::string result;
    for (const char byte : text) {
        if (byte == '"' || byte == '\\') {
            result += '\\';
        }
        result += byte;
    }
    return result;
}

// Receives until `wanted` frames or packets have come.
bool expect(const line_t& line, const peer_t& peer, int wanted) {
    std::string in;
    while (wanted > 0) {
        std::string_view text;
        mqtt_packet_t packet;
        const std::size_t size = peer.wire == wire_t::cloud    ? cloud_take(in, &text)
                                 : peer.wire == wire_t::daemon ? daemon_take(in, &text)
                                                               : mqtt_take(in, &packet);
        in.erase(0, size);
        wanted -= size > 0 ? 1 : 0;
        if (size == 0 && (!line_wait(line, open_ms) || !line_receive(line, &in))) {
            return false;
        }
    }
    return true;
}

bool prepare(const line_t& line, const peer_t& peer, int number) {
    if (peer.wire == wire_t::daemon) {
        return expect(line, peer, 1);  // its greeting
    }
    if (peer.wire == wire_t::cloud) {
        return line_send(line, cloud_frame(R"({"method":"helloCloud","params":{},"id":1})")) &&
               expect(line, peer, 1);
    }
    const std::string id = std::to_string(number);
    const std::string name = "bench-" + std::to_string(getpid()) + "-" + id;
    const std::string filter = number == peer_answers ? peer.prefix + "/#" : peer.reply + "/" + id;
    return line_send(line, mqtt_connect_packet(name)) && expect(line, peer, 1) &&
           line_send(line, mqtt_subscribe_packet(filter)) && expect(line, peer, 1);
}

std::size_t take_answer(const peer_t& peer, std::string_view in, answer_t* answer) {
    if (peer.wire == wire_t::mqtt) {
        mqtt_packet_t packet;
        const std::size_t size = mqtt_take(in, &packet);
        answer->complete |= size > 0 && packet.type == mqtt_publish;
        return size;
    }
    std::string_view text;
    const bool local = peer.wire == wire_t::daemon;
    const std::size_t size = local ? daemon_take(in, &text) : cloud_take(in, &text);
    if (size == 0) {
        return 0;
    }
    // With an id of 0 the request was not sent: the connection had to be made anew.
    answer->failed |= !holds(text, local ? "\"inner_error_code\":0" : "\"error_code\":0") ||
                      (local && (holds(text, "\"id\":0}") || holds(text, "\\\"error_code\\\":-")));
    answer->complete = ++answer->frames == (local ? 2 : 1) || answer->failed;
    return size;
}

}  // namespace

bool peer_parse(const std::string& text, peer_t* peer) {
    const std::size_t at = text.find('@');
    if (at == std::string::npos) {
        return false;
    }
    const std::string name = text.substr(0, at);
    peer->address = text.substr(at + 1);
    if (name == "cloud" || name == "daemon") {
        peer->wire = name == "cloud" ? wire_t::cloud : wire_t::daemon;
        return true;
    }
    const std::size_t second = name.find(':', 5);
    if (name.compare(0, 5, "mqtt:") != 0 || second == std::string::npos) {
        return false;
    }
    peer->wire = wire_t::mqtt;
    peer->prefix = name.substr(5, second - 5);
    peer->reply = name.substr(second + 1);
    return true;
}

std::string cloud_frame(std::string_view text) {
    return frame(text, 2);
}

std::string daemon_frame(std::string_view text) {
    return frame(text, 4);
}

std::size_t cloud_take(std::string_view in, std::string_view* text) {
    return take(in, 2, text);
}

std::size_t daemon_take(std::string_view in, std::string_view* text) {
    return take(in, 4, text);
}

line_t peer_open(const peer_t& peer, int number) {
    line_t line = line_open(peer.address);
    if (line.fd >= 0 && !prepare(line, peer, number)) {
        return line_t();
    }
    return line;
}

std::string peer_request(const peer_t& peer, int number, std::size_t bytes) {
    switch (peer.wire) {
        case wire_t::cloud:
            return cloud_frame(request_text(bytes, R"(,"id":7})"));
        case wire_t::daemon:
            return daemon_frame(
                R"({"inner_method":"device_request","inner_id":1,"inner_params":{"request":")" +
                escaped(request_text(bytes, "}")) + R"(","timeout_ms":-1,"flag":1}})");
        case wire_t::mqtt:
            break;
    }
    return mqtt_publish_packet(peer.prefix + "/" + std::to_string(number),
                               request_text(bytes, "}"));
}

void peer_take(const peer_t& peer, std::string* in, answer_t* answer) {
    std::size_t at = 0;
    while (const std::size_t size = take_answer(peer, std::string_view(*in).substr(at), answer)) {
        at += size;
    }
    in->erase(0, at);
}
