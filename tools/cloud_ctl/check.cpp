#include "cloud_ctl/check.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "config.h"
#include "util/json.h"
#include "util/memory.h"

namespace {

constexpr std::string_view kMessageMark = " | - ";
constexpr std::string_view kNotLoaded = "fail to load the ";

// Standard output caught in memory while the loader runs, whose log is its only word.
struct caught_t {
    bool loaded = false;
    std::string output;
};

std::string read_back(int fd) {
    std::string text;
    char buffer[4096];
    lseek(fd, 0, SEEK_SET);
    for (ssize_t count = 0; (count = read(fd, buffer, sizeof(buffer))) > 0;) {
        text.append(buffer, static_cast<size_t>(count));
    }
    return text;
}

caught_t load_caught(std::string path) {
    std::string program = "cloud_ctl";
    std::string option = "-c";
    char* argv[] = {program.data(), option.data(), path.data(), nullptr};
    const descriptor_t caught(memfd_create("log", MFD_CLOEXEC));
    fflush(stdout);
    const descriptor_t kept(dup(STDOUT_FILENO));
    dup2(caught.fd, STDOUT_FILENO);
    config_t* const config = config_load(3, argv);
    if (config != nullptr) {
        config_free(config);
    }
    fflush(stdout);
    dup2(kept.fd, STDOUT_FILENO);
    return caught_t{config != nullptr, read_back(caught.fd)};
}

// "fail to load the cloud.port" is a missing key; what isn't listed here speaks for itself.
std::string plain(std::string_view message) {
    if (message == "fail to parse the configure") {
        return "is not JSON";
    }
    if (message.starts_with("fail to open ") || message.starts_with("fail to read ")) {
        constexpr std::string_view kNumber = "error=";
        const char* const number = message.data() + message.find(kNumber) + kNumber.size();
        return std::string("cannot be read: ") + strerror(atoi(number));
    }
    if (!message.starts_with(kNotLoaded)) {
        return std::string(message);
    }
    const std::string_view rest = message.substr(kNotLoaded.size());
    constexpr std::string_view kObject = "configure, ";
    if (rest.starts_with(kObject)) {
        return std::string(rest.substr(kObject.size()));
    }
    return std::string(rest) + " is missing, or not of its type";
}

// The messages that name a reason; those of the callers only repeat that there is one.
std::vector<std::string> reasons_get(std::string_view log) {
    std::vector<std::string> reasons;
    while (!log.empty()) {
        const std::string_view line = log.substr(0, log.find('\n'));
        log.remove_prefix(line.size() < log.size() ? line.size() + 1 : line.size());
        const size_t mark = line.find(kMessageMark);
        if (mark == std::string_view::npos || line.find("ERROR") > mark) {
            continue;
        }
        const std::string_view message = line.substr(mark + kMessageMark.size());
        if (message != "fail to load the configure" &&
            !message.starts_with("fail to load the configure, error=")) {
            reasons.push_back(plain(message));
        }
    }
    return reasons;
}

}  // namespace

int check_run(const std::string& path, bool json) {
    const caught_t caught = load_caught(path);
    const std::vector<std::string> reasons = reasons_get(caught.output);
    if (json) {
        const json_ptr list(cJSON_CreateArray());
        for (const std::string& reason : reasons) {
            cJSON_AddItemToArray(list.get(), cJSON_CreateString(reason.c_str()));
        }
        printf("{\"ok\":%s,\"reasons\":%s}\n", caught.loaded ? "true" : "false",
               json_print(list.get()).get());
    } else if (caught.loaded) {
        printf("%s: the daemon takes it\n", path.c_str());
    }
    for (const std::string& reason : reasons) {
        fprintf(stderr, "cloud_ctl: %s: %s\n", path.c_str(), reason.c_str());
    }
    return caught.loaded ? 0 : 1;
}
