// As much of MQTT 3.1.1 as the benchmark needs: packets for publishing and subscribing with QoS 0.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

struct mqtt_packet_t {
    unsigned type = 0;  // the upper half of the first byte
    std::string_view topic;
    std::string_view payload;
};

inline constexpr unsigned mqtt_connack = 2;
inline constexpr unsigned mqtt_publish = 3;
inline constexpr unsigned mqtt_suback = 9;

std::string mqtt_connect_packet(std::string_view client_id);
std::string mqtt_subscribe_packet(std::string_view filter);
std::string mqtt_publish_packet(std::string_view topic, std::string_view payload);

// Reads the packet that `in` begins with; its views are into `in`. The packet's size, 0 when it
// isn't there as a whole yet.
std::size_t mqtt_take(std::string_view in, mqtt_packet_t* packet);
