#include "e2e/harness.h"

#include <fcntl.h>
#include <pty.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include <cjson/cJSON.h>

namespace {

using json_t = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

std::string environment(const char* name, const char* otherwise) {
    const char* const value = getenv(name);
    return value != nullptr ? value : otherwise;
}

json_t item_at(const std::string& json, const std::string& path) {
    const json_t whole(cJSON_Parse(json.c_str()), cJSON_Delete);
    const cJSON* item = whole.get();
    std::istringstream names(path);
    for (std::string name; std::getline(names, name, '.');) {
        item = cJSON_GetObjectItemCaseSensitive(item, name.c_str());
    }
    return {cJSON_Duplicate(item, 1), cJSON_Delete};
}

// The daemon's socket has a fixed place: an empty /tmp for this process and its children, in which
// the folders that the tests need stay where they are.
bool private_tmp_make(const std::vector<std::string>& needed) {
    std::vector<std::pair<std::string, int>> kept;
    for (const std::string& folder : needed) {
        if (folder.rfind("/tmp/", 0) == 0) {
            kept.emplace_back(folder, open(folder.c_str(), O_PATH | O_CLOEXEC));
        }
    }
    bool done = unshare(CLONE_NEWNS) == 0 &&
                mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) == 0;
    for (const auto& [folder, fd] : kept) {
        const std::string from = "/proc/self/fd/" + std::to_string(fd);
        done = done && (std::filesystem::exists(folder) ||
                        (std::filesystem::create_directories(folder) &&
                         mount(from.c_str(), folder.c_str(), nullptr, MS_BIND, nullptr) == 0));
    }
    return done;
}

// So many bytes; fewer when they don't come in time.
std::string receive(int fd, std::size_t size, std::int64_t deadline) {
    const std::int64_t left = std::max<std::int64_t>(deadline - now_ms(), 1);
    const timeval timeout = {left / 1000, left % 1000 * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    std::string bytes(size, '\0');
    bytes.resize(std::max<ssize_t>(recv(fd, bytes.data(), size, MSG_WAITALL), 0));
    return bytes;
}

bool frame_get(int fd, std::int64_t deadline, std::string* text) {
    const std::string header = receive(fd, 6, deadline);
    if (header.size() < 6) {
        return false;
    }
    std::size_t length = 0;
    for (std::size_t i = 2; i < 6; ++i) {
        length = length << 8 | static_cast<unsigned char>(header[i]);
    }
    EXPECT_EQ(header, local_header(static_cast<std::uint32_t>(length)));
    *text = receive(fd, length, deadline);
    return text->size() == length;
}

}  // namespace

bool is_slow() {
    return E2E_SLOW != 0 || getenv("CLOUD_SVR_RUNNER") != nullptr;
}

int wait_ms() {
    return is_slow() ? 80000 : 20000;
}

std::int64_t now_ms() {
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1);
}

std::int64_t number_at(const std::string& json, const std::string& path) {
    const json_t item = item_at(json, path);
    return cJSON_IsNumber(item.get()) ? static_cast<std::int64_t>(item->valuedouble) : -1;
}

std::string text_at(const std::string& json, const std::string& path) {
    const json_t item = item_at(json, path);
    return cJSON_IsString(item.get()) ? item->valuestring : "";
}

std::string quoted(const std::string& text) {
    const json_t item(cJSON_CreateString(text.c_str()), cJSON_Delete);
    const std::unique_ptr<char, decltype(&free)> printed(cJSON_PrintUnformatted(item.get()), free);
    return printed.get();
}

std::string local_header(std::uint32_t length) {
    std::string header = "\xA1\xB2";
    for (int shift = 24; shift >= 0; shift -= 8) {
        header += static_cast<char>(length >> shift);
    }
    return header;
}

// ---- The daemon

daemon_t::~daemon_t() {
    if (pid != 0) {
        kill(pid, SIGKILL);
        (void)await_exit();
    }
}

void daemon_t::launch(const std::vector<std::string>& arguments) {
    std::istringstream runner(environment("CLOUD_SVR_RUNNER", ""));
    std::vector<std::string> words{std::istream_iterator<std::string>(runner), {}};
    words.push_back(environment("CLOUD_SVR_DAEMON", E2E_DAEMON));
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv(words.size() + 1);
    std::transform(words.begin(), words.end(), argv.begin(),
                   [](auto& word) { return word.data(); });
    lines.clear();
    ended = false;
    // Through a terminal each line comes as soon as it is printed; its end ends the daemon, too.
    int terminal = -1;
    pid = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid == 0) {
        signal(SIGHUP, SIG_DFL);
        close(STDIN_FILENO);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    ASSERT_GT(pid, 0) << "no terminal for the daemon";
    fcntl(terminal, F_SETFD, FD_CLOEXEC);
    reader = std::thread([this, terminal] {
        FILE* const stream = fdopen(terminal, "r");
        std::size_t capacity = 0;
        char* line = nullptr;
        while (getline(&line, &capacity, stream) > 0) {
            const std::lock_guard guard(lock);
            lines.emplace_back(line, strcspn(line, "\r\n"));
            changed.notify_all();
        }
        free(line);
        fclose(stream);
        const std::lock_guard guard(lock);
        ended = true;
        changed.notify_all();
    });
}

int daemon_t::await_exit(int timeout_ms) {
    std::unique_lock guard(lock);
    if (!changed.wait_for(guard, std::chrono::milliseconds(timeout_ms), [&] { return ended; })) {
        return -1;
    }
    guard.unlock();
    reader.join();
    int status = 0;
    waitpid(std::exchange(pid, 0), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

void daemon_t::stop() {
    const int promised_ms = is_slow() ? 8000 : 2000;
    const int margin_ms = 2000;
    kill(pid, SIGTERM);
    int code = await_exit(promised_ms + margin_ms);
#if defined(__SANITIZE_THREAD__)
    // ThreadSanitizer keeps back a signal that comes just before a call that blocks.
    if (code == -1) {
        kill(pid, SIGTERM);
        code = await_exit(promised_ms + margin_ms);
    }
#endif
    EXPECT_EQ(code, 0) << "after SIGTERM";
}

bool daemon_t::await_log(const std::string& text, std::size_t count, int timeout_ms) {
    std::size_t looked = 0;
    std::size_t found = 0;
    std::unique_lock guard(lock);
    changed.wait_for(guard, std::chrono::milliseconds(timeout_ms), [&] {
        for (; looked < lines.size(); ++looked) {
            found += lines[looked].find(text) != std::string::npos ? 1 : 0;
        }
        return found >= count || ended;
    });
    return found >= count;
}

std::size_t daemon_t::count_log(const std::string& text) {
    const std::vector<std::string> all = log();
    return static_cast<std::size_t>(std::count_if(all.begin(), all.end(), [&](const auto& line) {
        return line.find(text) != std::string::npos;
    }));
}

std::string daemon_t::log_tail(const std::string& text) {
    for (const std::string& line : log()) {
        const std::size_t at = line.find(text);
        if (at != std::string::npos) {
            return line.substr(at + text.size());
        }
    }
    return {};
}

std::vector<std::string> daemon_t::log() {
    const std::lock_guard guard(lock);
    return lines;
}

long daemon_t::status(const std::string& name) const {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    return atol(text.c_str() + text.find(name) + name.size());
}

long daemon_t::descriptors() const {
    const std::string folder = "/proc/" + std::to_string(pid) + "/fd";
    return std::distance(std::filesystem::directory_iterator(folder), {});
}

std::int64_t daemon_t::processor_ms() const {
    clockid_t clock = 0;
    timespec spent = {};
    EXPECT_EQ(clock_getcpuclockid(pid, &clock), 0);
    clock_gettime(clock, &spent);
    return spent.tv_sec * 1000 + spent.tv_nsec / 1000000;
}

// ---- A client

client_t::client_t() : fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_un address = {AF_UNIX, "/tmp/cloud_svr"};
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(std::exchange(fd, -1));
    }
}

client_t::~client_t() {
    close(fd);
}

bool client_t::send_raw(const std::string& bytes) const {
    return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0;
}

bool client_t::send(const std::string& text) const {
    return send_raw(local_header(static_cast<std::uint32_t>(text.size())) + text);
}

std::string client_t::await(const std::function<bool(const std::string&)>& matches,
                            int timeout_ms) {
    const std::int64_t deadline = now_ms() + timeout_ms;
    const auto found = std::find_if(kept.begin(), kept.end(), matches);
    if (found != kept.end()) {
        std::string text = *found;
        kept.erase(found);
        return text;
    }
    for (std::string text; frame_get(fd, deadline, &text);) {
        if (matches(text)) {
            return text;
        }
        const std::string reply = agent ? agent(text) : "";
        if (reply.empty()) {
            kept.push_back(text);
        } else {
            (void)send(reply);
        }
    }
    return {};
}

std::string client_t::receive(int timeout_ms) {
    return await([](const std::string&) { return true; }, timeout_ms);
}

std::string client_t::await_method(const std::string& name, int timeout_ms) {
    return await([&](const auto& text) { return text_at(text, "inner_method") == name; },
                 timeout_ms);
}

std::int64_t client_t::greeting() {
    return number_at(await_method("server_notify"), "inner_params.type");
}

bool client_t::await_close() {
    (void)await([](const std::string&) { return false; });
    char byte = 0;
    return recv(fd, &byte, 1, MSG_DONTWAIT) == 0;
}

std::int64_t client_t::post(const std::string& method, const std::string& params) {
    (void)send(R"({"inner_method":)" + quoted(method) + R"(,"inner_id":)" +
               std::to_string(++last_id) + R"(,"inner_params":)" + params + "}");
    return last_id;
}

std::string client_t::await_answer(std::int64_t inner_id, int timeout_ms) {
    const auto matches = [&](const std::string& text) {
        return text_at(text, "inner_method").empty() && number_at(text, "inner_id") == inner_id;
    };
    return await(matches, timeout_ms);
}

std::int64_t client_t::call(const std::string& method, const std::string& params) {
    const std::string answer = await_answer(post(method, params));
    return answer.empty() ? 1 : number_at(answer, "inner_error_code");
}

sent_t client_t::request(const std::string& text, int timeout_ms, int flag) {
    const std::string answer =
        await_answer(post("device_request", request_params(text, timeout_ms, flag)));
    return {number_at(answer, "inner_error_code"), number_at(answer, "inner_result.id")};
}

std::string client_t::response(std::int64_t id, int timeout_ms) {
    const auto matches = [&](const std::string& text) {
        return number_at(text, "inner_result.id") == id && number_at(text, "inner_id") < 0;
    };
    return text_at(await(matches, timeout_ms), "inner_result.response");
}

bool client_t::echo(const std::string& text, int timeout_ms, int flag) {
    const sent_t sent =
        request(R"({"method":"echo","params":)" + quoted(text) + "}", timeout_ms, flag);
    return sent.code == 0 &&
           response(sent.id) == R"({"error_code":0,"result":)" + quoted(text) + "}";
}

std::string willing_agent(const std::string& message) {
    const std::string method = text_at(message, "inner_method");
    if (method == "request_of_hello_cloud") {
        return R"({"inner_result":{"response":"{\"method\":\"helloCloud\",\"params\":{}}"}})";
    }
    return method != "cloud_request"
               ? ""
               : cloud_answer(number_at(message, "inner_id"), R"({"error_code":0})");
}

std::string request_params(const std::string& text, int timeout_ms, int flag) {
    return R"({"request":)" + quoted(text) + R"(,"timeout_ms":)" + std::to_string(timeout_ms) +
           R"(,"flag":)" + std::to_string(flag) + "}";
}

std::string cloud_answer(std::int64_t id, const std::string& response) {
    return R"({"inner_id":)" + std::to_string(id) +
           R"(,"inner_error_code":0,"inner_result":{"response":)" + quoted(response) + "}}";
}

// ---- The fixture

void e2e_test::configure(const settings_t& settings, const sim_behaviour_t& behaviour,
                         sim_config_t config) {
    config.behaviour = behaviour;
    cloud = sim_start(config);
    ASSERT_NE(cloud, nullptr);
    std::ofstream("/tmp/ca.pem") << sim_ca(cloud.get());
    const std::string kits = environment("CLOUD_SVR_KITS", E2E_KITS);
    const std::string link = settings.link.empty() ? "" : R"("link":)" + settings.link + ",";
    std::ofstream("/tmp/config.cfg")
        << "{" << link << R"("cloud":{"domain":"127.0.0.1","port":)" << sim_port(cloud.get())
        << R"(},"default":{"cer_file":"/tmp/ca.pem","heartbeat_interval_ms":)"
        << settings.heartbeat_ms << R"(,"request_timeout_ms":)" << settings.timeout_ms
        << R"(,"max_message_number":)" << settings.messages << R"(,"max_client_number":)"
        << settings.clients << R"(},"module":{"cloud_kit":")"
        << (settings.kit.empty() ? "" : kits + "/kit_" + settings.kit + ".so") << R"("}})";
}

void e2e_test::launch() {
    daemon.launch({"-c", "/tmp/config.cfg"});
    ASSERT_TRUE(daemon.await_log("server start..."));
}

void e2e_test::start(const settings_t& settings, const sim_behaviour_t& behaviour) {
    configure(settings, behaviour);
    launch();
}

void e2e_test::connect(const settings_t& settings, const sim_behaviour_t& behaviour) {
    start(settings, behaviour);
    ASSERT_TRUE(connected());
}

bool e2e_test::connected(std::size_t times) {
    return daemon.await_log("begin to receive from the cloud...", times);
}

bool e2e_test::works() {
    for (const std::int64_t deadline = now_ms() + wait_ms(); now_ms() < deadline;) {
        client_t client;
        if (client.echo("works", wait_ms() / 10)) {
            return true;
        }
        (void)client.await_method("none", 20);
    }
    return false;
}

void e2e_test::behave(const std::function<void(sim_behaviour_t*)>& change) const {
    sim_behaviour_t behaviour = sim_get_behaviour(cloud.get());
    change(&behaviour);
    sim_set_behaviour(cloud.get(), behaviour);
}

void e2e_test::TearDown() {
    if (daemon.pid != 0) {
        daemon.stop();
    }
    const auto is_bad_frame = [](const sim_entry_t& entry) {
        return entry.what == sim_what_t::fault && entry.text.rfind("a frame", 0) == 0;
    };
    EXPECT_FALSE(cloud != nullptr && sim_wait_entry(cloud.get(), is_bad_frame, 0));
    const std::vector<std::string> lines = daemon.log();
    const std::size_t shown = HasFailure() ? std::min<std::size_t>(lines.size(), 300) : 0;
    for (auto line = lines.end() - static_cast<std::ptrdiff_t>(shown); line != lines.end();
         ++line) {
        fprintf(stderr, "%s\n", line->substr(0, 300).c_str());
    }
}

void PrintTo(const case_t& item, std::ostream* out) {
    *out << item.name;
}

std::string case_name(const testing::TestParamInfo<case_t>& info) {
    return info.param.name;
}

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const std::string daemon = environment("CLOUD_SVR_DAEMON", E2E_DAEMON);
    const std::string kits = environment("CLOUD_SVR_KITS", E2E_KITS);
    if (!testing::GTEST_FLAG(list_tests) &&
        !private_tmp_make(
            {std::filesystem::path(daemon).parent_path(), kits, std::filesystem::current_path()})) {
        fprintf(stderr, "a mount namespace with a /tmp of its own can't be made: are you root?\n");
        return 1;
    }
    rlimit descriptors = {};  // for crowds of clients, on both ends
    getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = std::min<rlim_t>(descriptors.rlim_max, 8192);
    setrlimit(RLIMIT_NOFILE, &descriptors);
    return RUN_ALL_TESTS();
}
