// The daemon without threads, network or time, driven by one input (docs/fuzzing.md): tasks wait
// in a queue, the clock moves only when somebody waits, and the cloud is the input. FUZZ_SIDE says
// whose lines need no letter: 'L' the local clients', 'C' the cloud's, 'K' the plug-in's.
#include <assert.h>
#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include <deque>
#include <functional>
#include <string>

#include <openssl/ssl.h>

#include "cloud/inner_api.h"
#include "cloud/recv_from_ssl.h"
#include "cloud/session.h"
#include "cloud_svr_codes.h"
#include "ipc/ipc_socket.h"
#include "ipc/local_client.h"
#include "server/cloud_svr_handle.h"

// There is one thread: what the locks guard needs none.
#pragma clang diagnostic ignored "-Wthread-safety"

namespace {

struct line_t {
    char kind;
    std::string text;
};
struct client_t {
    int32_t handle = 0;  // 0: not there
    int peer = -1, asked = 0, answered = 0;
    ipc_reader_t reader, peer_reader;
};
struct world_t {
    inner_api_t* api = nullptr;
    std::deque<line_t> local, cloud, kit, answers;  // to come; the last: the cloud's own
    std::deque<std::function<void()>> tasks, timeout_tasks;
    line_t record = {};  // what TLS holds
    client_t clients[2];
    int attempts = 0, depth = 0, error = 0;
    uint64_t now_ms = UINT32_MAX - 20ULL, end_ms = UINT64_MAX;  // its 32 bits run over soon
};
world_t* g_world = nullptr;

bool has(const char* text, const char* name) {
    return json_get(json_ptr(cJSON_Parse(text)).get(), name) != nullptr;
}

std::string frame(const std::string& text, int length_bits) {
    std::string bytes = "\xA1\xB2";
    for (int shift = length_bits - 8; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(text.size() >> shift);
    }
    return bytes + text;
}

template <typename item_t>
item_t take(std::deque<item_t>* items) {
    item_t item = std::move(items->front());
    items->pop_front();
    return item;
}

// What the client is sent is whole frames of JSON.
void client_hear(client_t* client) {
    text_ptr text;
    while (client->handle != 0 && ipc_reader_step(&client->peer_reader, client->peer, &text) == 0) {
        const bool asks = has(text.get(), "inner_method");
        assert(asks || has(text.get(), "inner_error_code"));
        client->answered += !asks && has(text.get(), "inner_id") ? 1 : 0;
    }
}

// Each request of a client has had its one answer when it leaves.
void client_leave(client_t* client) {
    client_hear(client);
    assert(client->asked == client->answered);
    if (client->handle != 0) {
        local_client_close(client->handle);
        cloud_svr_handle_close(g_world->api, client->handle);
        close(client->peer);
    }
    *client = client_t{};
}

bool api_is_locked() {
    const bool is_free = g_world->api->lock.try_lock();
    if (is_free) {
        g_world->api->lock.unlock();
    }
    return !is_free;
}

void message_handle(client_t* client, const char* text) {
    const bool asks = has(text, "inner_method");
    if (asks && api_is_locked()) {
        g_world->local.push_front({'L', text});  // its thread would wait for the lock
        return;
    }
    client->asked += asks && has(text, "inner_id") ? 1 : 0;
    // By design a text that overwrites another leaves it behind.
    free(std::exchange(g_world->api->request_of_hello_cloud, nullptr));
    cloud_svr_handle_message(g_world->api, client->handle, text);
    client_hear(client);
}

void client_say(client_t* client, const std::string& bytes) {
    if (client->handle == 0) {
        int ends[2] = {-1, -1};
        (void)socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
        client->handle = local_client_open(ends[0]);
        client->peer = ends[1];
    }
    (void)send(client->peer, bytes.data(), bytes.size(), 0);
    for (int32_t code = 0; code != IPC_READER_MORE;) {
        text_ptr text;
        code = ipc_socket_read(&client->reader, local_client_fd(client->handle), &text);
        if (code == 0) {
            message_handle(client, text.get());
        }
    }
}

bool local_play() {
    const line_t line = take(&g_world->local);
    if (line.kind == '-') {
        client_leave(&g_world->clients[0]);
    } else if (line.kind == '+') {
        g_world->now_ms += line.text.size() * 1000;
        check_timeout_of_request(g_world->api, timeout_answer_get().get());
    } else {
        client_say(&g_world->clients[line.kind == '1' ? 1 : 0],
                   line.kind == 'l' ? line.text : frame(line.text, 32));
    }
    return true;
}

bool task_run() {
    if (g_world->tasks.empty() || g_world->depth == 8) {
        return false;
    }
    ++g_world->depth;
    take (&g_world->tasks)();
    --g_world->depth;
    return true;
}

// Whether TLS holds anything: the record begun, the input's next, or the cloud's own answer.
bool record_load() {
    line_t* const record = &g_world->record;
    while (record->text.empty()) {
        const bool input = !g_world->cloud.empty() && g_world->cloud.front().kind != 'W';
        if (!input && g_world->answers.empty()) {
            return false;
        }
        *record = take(input ? &g_world->cloud : &g_world->answers);
        if (record->kind == 'C') {
            record->text = frame(record->text.substr(0, SSL_SOCKET_TEXT_LIMIT), 16);
        }
    }
    return true;
}

bool receive() {
    ssl_socket_t* const socket = g_world->api->ssl_socket;
    if (inner_is_connected(g_world->api) && inner_is_lost(g_world->api)) {
        session_task_t task = {g_world->api, ssl_socket_get_connection(socket)};
        task_receive(&task);  // has nothing more to receive, and orders the next connection
        return true;
    }
    if (!inner_is_connected(g_world->api) || socket->connected == 0 || !record_load()) {
        return false;
    }
    (void)recv_from_ssl(g_world->api, ssl_socket_get_connection(socket));
    return true;
}

// What else happens while a task waits. Whoever waits with the API's lock waits for an answer.
bool happens() {
    const bool answers = !g_world->local.empty() && g_world->local.front().kind == 'L' &&
                         !has(g_world->local.front().text.c_str(), "inner_method");
    if (api_is_locked()) {
        return answers && local_play();
    }
    if (g_world->now_ms > g_world->end_ms) {
        (void)session_disconnect(g_world->api);
    }
    return task_run() || (answers && local_play()) || (g_world->cloud.empty() && receive());
}

// A frame of the daemon's. The cloud accepts whatever it is sent, unless the input is the cloud.
void cloud_hear(const std::string& bytes) {
    const json_ptr json(cJSON_Parse(bytes.c_str() + 4));
    assert(bytes == frame(bytes.substr(4), 16) && json != nullptr);
    assert(json_get(json.get(), "id") != nullptr || !cJSON_IsObject(json.get()));
    if (FUZZ_SIDE == 'C' || json_get(json.get(), "error_code") != nullptr) {
        return;
    }
    const std::string id = std::to_string(json_get_int(json.get(), "id")) + "}";
    for (const char* const text :
         {R"({"error_code":0,"result":{"illegalType":0},"id":)",
          R"({"method":"getDeviceInfo","id":)",
          R"({"method":"notifyEvent","params":{"event":"legalDevice"},"id":)"}) {
        g_world->answers.push_back({'C', text + id});
    }
}

// What an OpenSSL call that fails gives.
int tls_fail(char how) {
    constexpr int kErrors[] = {SSL_ERROR_SSL, SSL_ERROR_WANT_WRITE, SSL_ERROR_ZERO_RETURN};
    g_world->error = kErrors[static_cast<unsigned char>(how) % 3];
    return g_world->error == SSL_ERROR_ZERO_RETURN ? 0 : -1;
}

int kit_text(char** text) {
    *text = strdup(g_world->kit.empty() ? R"({"method":"helloCloud","error_code":0})"
                                        : take(&g_world->kit).text.c_str());
    return 0;
}

void kit_give(inner_api_t* api, bool hello) {
    api->cloud_kit = record_new<cloud_kit_t>().release();
    api->cloud_kit->handle = dlopen(nullptr, RTLD_LAZY);
    api->cloud_kit->func = {[](const char*, char** text) { return kit_text(text); },
                            hello ? kit_text : nullptr,
                            [](const char* text) { return has(text, "id") ? 1 : 0; }};
    api->kit_loaded = 1;
}

void lines_add(const std::string& input) {
    const bool raw = input.rfind("\xA1\xB2", 0) == 0;
    for (size_t at = 0; at < input.size();) {
        const size_t end = raw ? input.size() : std::min(input.find('\n', at), input.size());
        const bool named = !raw && memchr("Ll1-+CcEWK", input[at], 10) != nullptr;
        const char kind = named ? input[at] : static_cast<char>(raw ? FUZZ_SIDE | 0x20 : FUZZ_SIDE);
        auto& lines = memchr("CcEW", kind, 4) != nullptr ? g_world->cloud : g_world->local;
        (kind == 'K' || kind == 'k' ? g_world->kit : lines)
            .push_back({kind, input.substr(at + (named ? 1 : 0), end - at - (named ? 1 : 0))});
        at = end + 1;
    }
}

void play() {
    for (int turn = 0; turn < 256; ++turn) {
        session_start_reconnect(g_world->api, 0, 0);
        if (!g_world->local.empty()) {
            (void)local_play();
        } else if (!g_world->kit.empty()) {
            g_world->answers.push_back({'C', R"({"method":"notifyEvent","id":7})"});
        } else if (!receive() && g_world->tasks.empty()) {
            break;
        }
        while (task_run() || receive()) {
        }
    }
    // A minute of heartbeats, then the stop.
    g_world->end_ms = g_world->now_ms + 60000;
    while (!g_world->timeout_tasks.empty()) {
        g_world->tasks.push_back(take(&g_world->timeout_tasks));
    }
    for (int i = 0; i < 2; ++i) {
        while (task_run()) {
        }
        inner_api_stop(g_world->api);
    }
    assert(g_world->tasks.empty() && g_world->timeout_tasks.empty());
}

}  // namespace

extern "C" {

int __wrap_clock_gettime(clockid_t, struct timespec* now) {
    now->tv_sec = static_cast<time_t>(g_world->now_ms / 1000);
    now->tv_nsec = static_cast<long>(g_world->now_ms % 1000) * 1000000L;
    return 0;
}

int __wrap_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t* lock,
                                  const struct timespec* until) {
    pthread_mutex_unlock(lock);
    if (!happens()) {
        const int64_t ms = until->tv_sec * 1000 + until->tv_nsec / 1000000;
        g_world->now_ms = std::max(g_world->now_ms, static_cast<uint64_t>(ms));
    }
    return pthread_mutex_lock(lock);
}

int __wrap_poll(struct pollfd* item, nfds_t, int timeout_ms) {
    const bool ready = item->events == POLLOUT || record_load();
    g_world->now_ms += ready ? 0 : static_cast<uint64_t>(timeout_ms);
    return ready ? 1 : 0;
}

int SSL_write(SSL*, const void* bytes, int size) {
    if (!g_world->cloud.empty() && g_world->cloud.front().kind == 'W') {
        const line_t line = take(&g_world->cloud);
        return line.text.empty() ? size : tls_fail(line.text[0]);
    }
    cloud_hear(std::string(static_cast<const char*>(bytes), static_cast<size_t>(size)));
    return size;
}

int SSL_read(SSL*, void* buffer, int size) {
    std::string& bytes = g_world->record.text;
    g_world->error = SSL_ERROR_WANT_READ;
    if (!record_load()) {
        return -1;
    }
    if (g_world->record.kind == 'E') {
        return tls_fail(std::exchange(bytes, std::string())[0]);
    }
    const size_t count = std::min(bytes.size(), static_cast<size_t>(size));
    memcpy(buffer, bytes.data(), count);
    bytes.erase(0, count);
    return static_cast<int>(count);
}

int SSL_get_error(const SSL*, int result) {
    return result > 0 ? SSL_ERROR_NONE : g_world->error;
}

int SSL_has_pending(const SSL*) {
    return g_world->record.text.empty() ? 0 : 1;
}

}  // extern "C"

int32_t tls_prepare() {
    return 0;
}

int32_t tls_open(tls_t* tls, const char*, int32_t, int32_t, const char*, const link_options_t*,
                 const std::atomic<bool>*) {
    g_world->answers.clear();
    g_world->record = {};
    if (++g_world->attempts > 6 || (FUZZ_SIDE == 'C' && g_world->cloud.empty())) {
        g_world->api->stopping = true;  // or the attempts would never end
        return CLOUD_SVR_E_NO_CONNECTION;
    }
    tls->ssl = reinterpret_cast<SSL*>(g_world);
    return 0;
}

void tls_close(tls_t* tls) {
    ssl_socket_t* const socket = g_world->api->ssl_socket;
    if (socket->options == nullptr) {
        // By design the first disconnect leaves the name behind.
        free(std::exchange(socket->cer_file, nullptr));
    }
    *tls = tls_t{};
}

int32_t task_pool_add_here(task_pool_t*, task_pool_work_fn, task_pool_done_fn,
                           void*) asm("__wrap__Z13task_pool_addP11task_pool_tPFvPvES3_S1_");
int32_t task_pool_add_here(task_pool_t*, task_pool_work_fn work, task_pool_done_fn done,
                           void* arg) {
    const auto run = [=] {
        // What receives is play.
        if (work != task_receive) {
            work(arg);
        }
        if (done != nullptr) {
            done(arg);
        }
    };
    // The time-out tasks run last, then also those of a connection made so late.
    const bool later = work == task_timeout_check && g_world->end_ms == UINT64_MAX;
    (later ? g_world->timeout_tasks : g_world->tasks).push_back(run);
    return 0;
}

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

// libFuzzer changes bytes and hardly ever finds another number's digits by that.
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                          unsigned seed) {
    constexpr const char* kNumbers[] = {"0",    "1",  "2",   "3",     "4",          "65",
                                        "1000", "-1", "0.5", "1e999", "2147483647", "-2147483648"};
    std::string text(reinterpret_cast<const char*>(data), size);
    const size_t at = text.find_first_of("0123456789", (seed >> 8) % (size + 1));
    if (seed % 4 != 0 || at == std::string::npos) {
        return LLVMFuzzerMutate(data, size, max_size);
    }
    text.replace(at, std::min(text.find_first_not_of("0123456789", at), size) - at,
                 kNumbers[seed / 4 % std::size(kNumbers)]);
    const size_t length = std::min(text.size(), max_size);
    memcpy(data, text.data(), length);
    return length;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static char text[] = "127.0.0.1";
    static link_options_t link = {false, true, true, nullptr, nullptr, nullptr, nullptr};
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::string choices = input.substr(0, input.find_first_not_of("DR"));
    const bool recover = choices.find('R') != choices.npos;
    config_t config = {text, nullptr, text, 1, 20000, 2000, 3, 2, 0, recover ? &link : nullptr};
    world_t world;
    g_world = &world;
    srand(1);
    world.api = inner_api_init(&config);
    if (FUZZ_SIDE != 'L') {
        kit_give(world.api, choices.find('D') == choices.npos);
    }
    lines_add(input.substr(choices.size()));
    play();
    for (client_t& client : world.clients) {
        client_leave(&client);
    }
    inner_api_destroy(world.api);
    return 0;
}
