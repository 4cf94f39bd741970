#include "mqtt.h"

namespace {

constexpr unsigned connect_type = 1;
constexpr unsigned subscribe_type = 8;

std::string number(std::size_t value) {
    return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

std::string text(std::string_view bytes) {
    return number(bytes.size()).append(bytes);
}

std::string packet(unsigned type, unsigned flags, const std::string& body) {
    std::string bytes(1, static_cast<char>(type << 4 | flags));
    std::size_t left = body.size();
    do {
        const std::size_t seven = left & 0x7F;
        left >>= 7;
        bytes += static_cast<char>(left > 0 ? seven | 0x80 : seven);
    } while (left > 0);
    return bytes + body;
}

// The size of the first byte and the length behind it, 0 when they are cut short.
std::size_t take_length(std::string_view in, std::size_t* length) {
    *length = 0;
    for (std::size_t at = 1; at < in.size() && at <= 4; ++at) {
        const auto byte = static_cast<unsigned char>(in[at]);
        *length |= static_cast<std::size_t>(byte & 0x7FU) << (7 * (at - 1));
        if ((byte & 0x80U) == 0) {
            return at + 1;
        }
    }
    return 0;
}

}  // namespace

std::string mqtt_connect_packet(std::string_view client_id) {
    constexpr char clean_session = 2;
    const std::string level = {4, clean_session, 0, 0};  // no keepalive
    return packet(connect_type, 0, text("MQTT") + level + text(client_id));
}

std::string mqtt_subscribe_packet(std::string_view filter) {
    return packet(subscribe_type, 2, number(1) + text(filter) + '\0');
}

std::string mqtt_publish_packet(std::string_view topic, std::string_view payload) {
    return packet(mqtt_publish, 0, text(topic).append(payload));
}

std::size_t mqtt_take(std::string_view in, mqtt_packet_t* packet) {
    std::size_t length = 0;
    const std::size_t header = take_length(in, &length);
    if (header == 0 || in.size() - header < length) {
        return 0;
    }
    packet->type = static_cast<unsigned char>(in[0]) >> 4;
    std::string_view body = in.substr(header, length);
    if (packet->type == mqtt_publish && body.size() >= 2) {
        const std::size_t topic =
            static_cast<unsigned char>(body[0]) * 256U + static_cast<unsigned char>(body[1]);
        packet->topic = body.substr(2, topic);
        body.remove_prefix(2 + packet->topic.size());
    }
    packet->payload = body;
    return header + length;
}
