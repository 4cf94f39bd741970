#include "config.h"

#include "capture.h"

namespace {

const std::string good = R"({"cloud":{"domain":"d","port":1},
"default":{"heartbeat_interval_ms":2,"request_timeout_ms":3,"max_message_number":4,
"max_client_number":5,"cer_file":"c"},"module":{"cloud_kit":"k"}})";

// The same with one part, which must be there, replaced.
std::string changed(const std::string& from, const std::string& to) {
    const size_t at = good.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return std::string(good).replace(at, from.size(), to);
}

}  // namespace

struct config_test : captured_t {
    using config_ptr = owned_t<config_t, config_free>;

    const folder_t folder;

    static config_ptr load_with(std::vector<std::string> arguments) {
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        optind = 1;
        return config_ptr(config_load(static_cast<int>(arguments.size()), argv.data()));
    }
    config_ptr load(const std::string& content) const {
        log.clear();
        return load_with({"prog", "-c", folder.file("a.cfg", content)});
    }
};

TEST_F(config_test, what_is_let_through) {
    const std::pair<std::string, const char*> cases[] = {
        {good, "certificate:      c"},
        {changed("\"port\":1", "\"port\":65535"), "port:             65535"},
        {changed(":5", ":1e12"), "maximum client:   2147483647"},
        {good + " and more", "memory limit(kb): 0"},
        {changed("\"cer_file\"", "\"mem_limit_kb\":6,\"cer_file\""), "memory limit(kb): 6"},
        {changed("\"c\"", "7"), "certificate:      null"},
        {good, "cloud-kit:        k"},
        {changed("module", "x"), "cloud-kit:        null"},
        {changed("{\"cloud_kit\":\"k\"}", "7"), "cloud-kit:        null"},
    };
    for (const auto& [content, line] : cases) {
        EXPECT_NE(load(content), nullptr) << content;
        EXPECT_TRUE(log.has(std::string("- ") + line + "\n")) << line;
    }
}

TEST_F(config_test, what_is_refused_and_why) {
    const struct {
        std::string content;
        const char* reason;
        int code;
    } cases[] = {
        {"[]", "- fail to load the configure, node \"cloud\" does not exist", -10100},
        {changed("\"d\"", "7"), "fail to load the cloud.domain", -10000},
        {changed("\"k\"", "7"), "fail to load the module.cloud_kit", -10000},
        {changed("\"d\"", "\"\""), "cloud.domain is NULL or empty", -20107},
        {changed("\"port\":1", "\"port\":0"), "cloud.port is out of range, port=0", -20106},
        {changed("\"port\":1", "\"port\":65536"), "out of range, port=65536", -20106},
        {changed("\"port\":1", "\"port\":\"1\""), "out of range, port=0", -20106},
        {changed(":2,", ":0,"), "heartbeat_interval_ms is out of range, value=0", -20106},
        {changed(":3,", ":-1,"), "request_timeout_ms is out of range, value=-1", -20106},
        {changed(":4,", ":0.9,"), "max_message_number is out of range, value=0", -20106},
        {changed(":5,", ":null,"), "max_client_number is out of range, value=0", -20106},
    };
    const std::string failed = "fail to load the configure, error=";
    for (const auto& c : cases) {
        EXPECT_EQ(load(c.content), nullptr);
        EXPECT_TRUE(log.has(std::string(c.reason) + "\n")) << c.reason;
        EXPECT_TRUE(log.has(failed + std::to_string(c.code) + "\n")) << c.reason;
    }
    for (const char* const name :
         {"cloud", "domain", "port", "default", "cer_file", "heartbeat_interval_ms",
          "request_timeout_ms", "max_message_number", "max_client_number"}) {
        EXPECT_EQ(load(changed(name, "x")), nullptr);
        EXPECT_TRUE(log.has(failed + "-10100\n") && log.has(name)) << name;
    }
    const std::string all = log.text(), mark = "\ndefault config:\n";
    const size_t begin = all.find(mark) + mark.size();
    const std::string sample = all.substr(begin, all.find("\n}\n", begin) + 3 - begin);
    EXPECT_EQ(sample.find(' '), std::string::npos);
    EXPECT_NE(load(sample), nullptr);
}

TEST_F(config_test, the_command_line_and_the_file) {
    folder.file("config.cfg", good);
    const std::string here = std::filesystem::current_path();
    std::filesystem::current_path(folder.path);
    EXPECT_EQ(load_with({"prog", "-c", "none"}), nullptr);
    EXPECT_TRUE(log.has("- fail to open the configure file, error=2, path=none\n"));
    EXPECT_EQ(load(""), nullptr);
    EXPECT_TRUE(log.has("- fail to parse the configure\n"));
    EXPECT_FALSE(log.has("default config:"));
    log.clear();
    EXPECT_NE(load_with({"prog"}), nullptr);
    EXPECT_NE(load_with({"prog", "-c", "none", "x", "-c", "config.cfg"}), nullptr);
    EXPECT_EQ(load_with({"prog", "config.cfg"}), nullptr);
    std::filesystem::current_path(here);
    EXPECT_TRUE(
        log.has("\nprog -c <path>\n\t-c <path>\t the configure path.\nor\nprog\n\tto load "
                "the default configure \"config.cfg\" in the current directory.\n"));
    EXPECT_FALSE(log.has("ERROR"));
}
