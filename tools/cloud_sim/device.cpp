// One device's connection: TLS, frames, buffers. Nothing in here waits.

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include <openssl/err.h>

#include "cloud_sim/state.h"

namespace {

constexpr unsigned char magic_first = 0xA1;
constexpr unsigned char magic_second = 0xB2;
constexpr std::size_t header_size = 4;
constexpr std::size_t choke_size = 4U << 20;
constexpr int reads_per_turn = 16;  // of a TLS record each, so that one device can't hold the rest

void append_frame(std::string* to, std::string_view text) {
    const char header[header_size] = {
        static_cast<char>(magic_first), static_cast<char>(magic_second),
        static_cast<char>(text.size() >> 8), static_cast<char>(text.size() & 0xFF)};
    to->append(header, header_size);
    to->append(text);
}

std::string& sink(sim_device_t* device) {
    return device->stalled ? device->behind : device->out;
}

bool has_output(const sim_device_t* device) {
    return device->out_done < device->out.size();
}

void update_interest(sim_t* sim, sim_device_t* device) {
    if (device->fd < 0) {
        return;
    }
    std::uint32_t interest = 0;
    if (!device->muted && (!device->secured || (device->reading && !device->choked))) {
        interest |= EPOLLIN;
    }
    if (device->secured ? has_output(device) : device->wants_write) {
        interest |= EPOLLOUT;
    }
    if (interest == device->interest) {
        return;
    }
    epoll_event event{};
    event.events = interest;
    event.data.u64 = static_cast<std::uint64_t>(device->number);
    epoll_ctl(sim->epoll_fd, EPOLL_CTL_MOD, device->fd, &event);
    device->interest = interest;
}

std::string tls_reason(int error) {
    const unsigned long code = ERR_peek_error();
    if (error == SSL_ERROR_SYSCALL && code == 0) {
        return std::strerror(errno);
    }
    if (ERR_GET_REASON(code) == SSL_R_UNEXPECTED_EOF_WHILE_READING) {
        return "by the device, without close_notify";
    }
    const char* const text = ERR_reason_error_string(code);
    return text != nullptr ? text : "unknown";
}

// What follows a TLS call that didn't succeed. True: try again when the socket lets us.
bool may_retry(sim_t* sim, sim_device_t* device, int result, const char* doing) {
    const int error = SSL_get_error(device->ssl.get(), result);
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
        device->wants_write = error == SSL_ERROR_WANT_WRITE;
        return true;
    }
    std::string why = "by the device";
    if (error == SSL_ERROR_ZERO_RETURN) {
        SSL_shutdown(device->ssl.get());  // the close_notify that answers the device's
    } else {
        why = doing + tls_reason(error);
    }
    device_close(sim, device, sim_kind_t::close_tcp, why);
    return false;
}

// What the device has shown of itself, and of whom it looks for.
void log_secured(sim_t* sim, const sim_device_t* device) {
    std::string text;
    if (const char* const name = SSL_get_servername(device->ssl.get(), TLSEXT_NAMETYPE_host_name)) {
        text = std::string("server name ") + name;
    }
    if (const X509* const given = SSL_get0_peer_certificate(device->ssl.get())) {
        char subject[256];
        X509_NAME_oneline(X509_get_subject_name(given), subject, sizeof subject);
        text += std::string(text.empty() ? "" : ", ") + "client certificate " + subject;
    }
    if (!text.empty()) {
        log_add(sim, sim_what_t::secured, device->number, text);
    }
}

bool secure(sim_t* sim, sim_device_t* device) {
    ERR_clear_error();
    const int result = SSL_accept(device->ssl.get());
    if (result == 1) {
        device->secured = true;
        log_secured(sim, device);
        return true;
    }
    may_retry(sim, device, result, "TLS handshake: ");
    return false;
}

// Handles the frames in `in`. The texts handed on are views into it: nobody else changes it.
void take_frames(sim_t* sim, sim_device_t* device) {
    std::size_t at = 0;
    while (device->fd >= 0 && device->reading && device->in.size() - at >= header_size) {
        const auto* const header = reinterpret_cast<const unsigned char*>(&device->in[at]);
        if (header[0] != magic_first || header[1] != magic_second) {
            log_add(sim, sim_what_t::fault, device->number, "a frame without its magic");
            device_close(sim, device, sim_kind_t::close, "after a bad frame");
            return;
        }
        const std::size_t length = header[2] * 256U + header[3];
        if (device->in.size() - at - header_size < length) {
            break;
        }
        ++sim->stats.frames_in;
        script_message(sim, device, std::string_view(device->in).substr(at + header_size, length));
        at += header_size + length;
    }
    device->in.erase(0, at);
}

bool read_record(sim_t* sim, sim_device_t* device) {
    char bytes[SSL3_RT_MAX_PLAIN_LENGTH];
    ERR_clear_error();
    const int count = SSL_read(device->ssl.get(), bytes, sizeof bytes);
    if (count <= 0) {
        may_retry(sim, device, count, "reading: ");
        return false;
    }
    sim->stats.bytes_in += static_cast<std::uint64_t>(count);
    device->in.append(bytes, static_cast<std::size_t>(count));
    return true;
}

// Unread data would make the kernel answer a plain close with RST, which can overtake what was
// sent last.
void drain(int fd) {
    char bytes[16384];
    for (int i = 0; i < 64 && recv(fd, bytes, sizeof bytes, MSG_DONTWAIT) > 0; ++i) {
    }
}

void say_goodbye(sim_t* sim, sim_device_t* device) {
    device_flush(sim, device);
    if (device->fd >= 0 && device->secured) {
        ERR_clear_error();
        SSL_shutdown(device->ssl.get());
    }
}

// How much goes into the next TLS record: whole frames as far as they fit, because a device may
// take a frame's body with one read. What is no frame, or too long for a record, goes as it comes.
std::size_t record_size(std::string_view rest) {
    std::size_t size = 0;
    while (rest.size() - size >= header_size) {
        const auto* const header = reinterpret_cast<const unsigned char*>(rest.data() + size);
        const std::size_t frame = header_size + header[2] * 256U + header[3];
        if (header[0] != magic_first || header[1] != magic_second || frame > rest.size() - size ||
            size + frame > SSL3_RT_MAX_PLAIN_LENGTH) {
            break;
        }
        size += frame;
    }
    return size > 0 ? size : std::min<std::size_t>(rest.size(), INT_MAX);
}

void forget(sim_t* sim, int number) {
    std::erase_if(sim->alarms, [&](const auto& alarm) { return alarm.second.device == number; });
    std::erase_if(sim->held, [&](const held_t& held) { return held.device == number; });
    sim->stats.held = sim->held.size();
    --sim->stats.open;
}

}  // namespace

std::string sim_frame(std::string_view text) {
    std::string frame;
    append_frame(&frame, text);
    return frame;
}

sim_device_t* device_find(sim_t* sim, int number) {
    if (number == sim_newest) {
        for (auto at = sim->devices.rbegin(); at != sim->devices.rend(); ++at) {
            if (at->second->fd >= 0) {
                return at->second.get();
            }
        }
        return nullptr;
    }
    const auto found = sim->devices.find(number);
    return found != sim->devices.end() && found->second->fd >= 0 ? found->second.get() : nullptr;
}

void device_open(sim_t* sim, int fd, std::string_view peer) {
    auto device = std::make_unique<sim_device_t>();
    device->number = ++sim->last_device;
    device->fd = fd;
    device->muted = !sim->behaviour.answer_tls;
    device->ssl.reset(SSL_new(sim->context.get()));
    epoll_event event{};
    event.data.u64 = static_cast<std::uint64_t>(device->number);
    if (device->ssl == nullptr || SSL_set_fd(device->ssl.get(), fd) != 1 ||
        epoll_ctl(sim->epoll_fd, EPOLL_CTL_ADD, fd, &event) != 0) {
        close(fd);
        return;
    }
    ++sim->stats.connections;
    ++sim->stats.open;
    log_add(sim, sim_what_t::opened, device->number, peer);
    update_interest(sim, device.get());
    sim->devices.emplace(device->number, std::move(device));
}

void device_make_ready(sim_t* sim, sim_device_t* device) {
    if (!device->ready) {
        device->ready = true;
        sim->ready.push_back(device->number);
        engine_wake(sim);
    }
}

void device_read(sim_t* sim, sim_device_t* device) {
    if (device->muted || (!device->secured && !secure(sim, device))) {
        update_interest(sim, device);
        return;
    }
    take_frames(sim, device);  // what a `stop_reading` left
    int reads = 0;
    while (device->fd >= 0 && device->reading && !device->choked) {
        if (reads++ == reads_per_turn) {
            device_make_ready(sim, device);
            break;
        }
        if (!read_record(sim, device)) {
            break;
        }
        take_frames(sim, device);
        device->choked = device->out.size() - device->out_done > choke_size;
    }
    device_flush(sim, device);
}

void device_event(sim_t* sim, sim_device_t* device, std::uint32_t events) {
    const bool read = (events & EPOLLIN) != 0 || !device->secured;
    if (read) {
        device_read(sim, device);
    } else if ((events & EPOLLOUT) != 0) {
        device_flush(sim, device);
    }
    // Nobody reads such a device, so that its end would be reported again and again.
    const bool deaf = device->muted || !device->reading || device->choked;
    if (device->fd >= 0 && deaf && (events & (EPOLLHUP | EPOLLERR)) != 0) {
        device_close(sim, device, sim_kind_t::close_tcp, "by the device, unread");
    }
}

bool device_put(sim_t* sim, sim_device_t* device, std::string_view text) {
    if (text.size() > sim_max_text) {
        return false;
    }
    append_frame(&sink(device), text);
    ++sim->stats.frames_out;
    if (log_wanted(sim)) {
        const json_t json = script_parse(text);
        log_add(sim, sim_what_t::sent, device->number, text, script_head(json.get()));
    }
    return true;
}

void device_put_raw(sim_t* sim, sim_device_t* device, std::string_view bytes) {
    device_flush(sim, device);
    sink(device).append(bytes);
    log_add(sim, sim_what_t::sent, device->number,
            "(" + std::to_string(bytes.size()) + " bytes without a frame)");
    device_flush(sim, device);
}

bool device_stall(sim_t* sim, sim_device_t* device, std::string_view text) {
    if (device->stalled || !device_put(sim, device, text)) {
        return false;
    }
    const std::size_t half = (header_size + text.size()) / 2;
    device->behind = device->out.substr(device->out.size() - half);
    device->out.resize(device->out.size() - half);
    device->stalled = true;
    return true;
}

void device_resume(sim_device_t* device) {
    device->stalled = false;
    device->out += device->behind;
    device->behind.clear();
}

void device_flush(sim_t* sim, sim_device_t* device) {
    while (device->fd >= 0 && device->secured && has_output(device)) {
        const std::string_view rest = std::string_view(device->out).substr(device->out_done);
        ERR_clear_error();
        const int count =
            SSL_write(device->ssl.get(), rest.data(), static_cast<int>(record_size(rest)));
        if (count <= 0) {
            may_retry(sim, device, count, "writing: ");
            break;
        }
        device->out_done += static_cast<std::size_t>(count);
        sim->stats.bytes_out += static_cast<std::uint64_t>(count);
    }
    if (!has_output(device)) {
        device->out.clear();
        device->out_done = 0;
        if (device->choked) {
            device->choked = false;
            device_make_ready(sim, device);
        }
    }
    update_interest(sim, device);
}

void device_close(sim_t* sim, sim_device_t* device, sim_kind_t how, std::string_view why) {
    if (how == sim_kind_t::close) {
        say_goodbye(sim, device);
    }
    if (device->fd < 0) {
        return;
    }
    if (how == sim_kind_t::reset) {
        const linger at_once{1, 0};
        setsockopt(device->fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    } else {
        shutdown(device->fd, SHUT_WR);
        drain(device->fd);
    }
    device->ssl.reset();
    close(device->fd);
    device->fd = -1;
    forget(sim, device->number);
    log_add(sim, sim_what_t::closed, device->number, why);
}
