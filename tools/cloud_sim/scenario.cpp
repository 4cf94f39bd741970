#include "cloud_sim/scenario.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <cjson/cJSON.h>

namespace {

struct json_deleter_t {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using json_t = std::unique_ptr<cJSON, json_deleter_t>;

// The first thing wrong with the file; nothing is read further after it.
struct reader_t {
    std::string error;
};

bool fail(reader_t* reader, const std::string& what) {
    if (reader->error.empty()) {
        reader->error = what;
    }
    return false;
}

const cJSON* member(const cJSON* object, const char* key) {
    return cJSON_GetObjectItemCaseSensitive(object, key);
}

std::string print(const cJSON* json) {
    const std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(json),
                                                            &cJSON_free);
    return text != nullptr ? std::string(text.get()) : std::string();
}

bool check_keys(reader_t* reader, const cJSON* object, const char* where,
                std::initializer_list<std::string_view> known) {
    if (cJSON_IsObject(object) == 0) {
        return fail(reader, std::string(where) + " is not an object");
    }
    for (const cJSON* item = object->child; item != nullptr; item = item->next) {
        bool found = false;
        for (const std::string_view key : known) {
            found = found || key == item->string;
        }
        if (!found) {
            return fail(reader, std::string("unknown key \"") + item->string + "\" in " + where);
        }
    }
    return true;
}

constexpr int any_number = INT32_MIN;

int read_int(reader_t* reader, const cJSON* object, const char* key, int least, int otherwise) {
    const cJSON* const item = member(object, key);
    if (item == nullptr) {
        return otherwise;
    }
    if (cJSON_IsNumber(item) == 0 || item->valuedouble != item->valueint ||
        item->valueint < least) {
        fail(reader, std::string("\"") + key + "\" is not a whole number" +
                         (least == any_number ? "" : " from " + std::to_string(least) + " on"));
        return otherwise;
    }
    return item->valueint;
}

std::optional<sim_kind_t> action_of(reader_t* reader, const cJSON* object) {
    static constexpr std::pair<std::string_view, sim_kind_t> actions[] = {
        {"drop", sim_kind_t::drop},
        {"stall", sim_kind_t::stall},
        {"resume", sim_kind_t::resume},
        {"stop_reading", sim_kind_t::stop_reading},
        {"start_reading", sim_kind_t::start_reading},
        {"close", sim_kind_t::close},
        {"close_tcp", sim_kind_t::close_tcp},
        {"reset", sim_kind_t::reset},
    };
    const cJSON* const item = member(object, "action");
    if (item == nullptr) {
        return std::nullopt;
    }
    const char* const word = cJSON_GetStringValue(item);
    for (const auto& [name, kind] : actions) {
        if (word != nullptr && name == word) {
            return kind;
        }
    }
    fail(reader, "unknown \"action\" " + print(item));
    return std::nullopt;
}

// ---- What is answered

struct rule_t {
    std::string method;  // "*": any
    int times = -1;      // how often it still applies; negative: always
    sim_step_t step;
};

std::string answer_text(reader_t* reader, const cJSON* item) {
    if (const cJSON* const answer = member(item, "answer")) {
        return print(answer);
    }
    const json_t answer(cJSON_CreateObject());
    cJSON_AddNumberToObject(answer.get(), "error_code",
                            read_int(reader, item, "error_code", any_number, 0));
    if (const cJSON* const result = member(item, "result")) {
        cJSON_AddItemToObject(answer.get(), "result", cJSON_Duplicate(result, 1));
    }
    return print(answer.get());
}

rule_t read_rule(reader_t* reader, const cJSON* item) {
    rule_t rule;
    if (!check_keys(reader, item, "an entry of \"answers\"",
                    {"method", "times", "delay_ms", "result", "error_code", "answer", "action"})) {
        return rule;
    }
    const char* const method = cJSON_GetStringValue(member(item, "method"));
    if (method == nullptr) {
        fail(reader, "an answer without a \"method\"");
        return rule;
    }
    rule.method = method;
    rule.times = read_int(reader, item, "times", 0, -1);
    rule.step.delay_ms = read_int(reader, item, "delay_ms", 0, 0);
    const bool whole = member(item, "answer") != nullptr;
    const bool parts = member(item, "result") != nullptr || member(item, "error_code") != nullptr;
    const bool answers = whole || parts;
    const std::optional<sim_kind_t> action = action_of(reader, item);
    if (whole && parts) {
        fail(reader, "\"answer\" to \"" + rule.method + "\" next to a part of an answer");
    }
    if (action && answers && *action != sim_kind_t::stall) {
        fail(reader, "an answer to \"" + rule.method + "\" next to an \"action\"");
    }
    if (action == sim_kind_t::resume || action == sim_kind_t::start_reading) {
        fail(reader, "\"action\" \"resume\" and \"start_reading\" are for \"send\" only");
    }
    rule.step.kind = action ? *action : answers ? sim_kind_t::send : sim_kind_t::echo;
    rule.step.text = answer_text(reader, item);
    return rule;
}

sim_step_t apply(std::vector<rule_t>* rules, std::string_view method) {
    for (rule_t& rule : *rules) {
        if (rule.times != 0 && (rule.method == "*" || rule.method == method)) {
            rule.times -= rule.times > 0 ? 1 : 0;
            return rule.step;
        }
    }
    return {};
}

void read_answers(reader_t* reader, const cJSON* list, sim_behaviour_t* behaviour) {
    std::vector<rule_t> rules;
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, list) {
        rules.push_back(read_rule(reader, item));
    }
    if (!rules.empty()) {
        behaviour->on_request = [rules](const sim_request_t& request) mutable {
            return apply(&rules, request.method);
        };
    }
}

// ---- What is sent unasked

sim_step_t read_sending(reader_t* reader, const cJSON* item) {
    sim_step_t step;
    if (!check_keys(reader, item, "an entry of \"send\"",
                    {"after_ms", "repeat_ms", "message", "text", "action"})) {
        return step;
    }
    step.delay_ms = read_int(reader, item, "after_ms", 0, 0);
    step.repeat_ms = read_int(reader, item, "repeat_ms", 1, 0);
    const cJSON* const message = member(item, "message");
    const char* const text = cJSON_GetStringValue(member(item, "text"));
    const std::optional<sim_kind_t> action = action_of(reader, item);
    if (message != nullptr && cJSON_IsObject(message) == 0) {
        fail(reader, "\"message\" is not an object");
    }
    if (text == nullptr && member(item, "text") != nullptr) {
        fail(reader, "\"text\" is not a text");
    }
    if (action == sim_kind_t::drop) {
        fail(reader, "\"action\" \"drop\" is for \"answers\" only");
    }
    const bool stalls = action == sim_kind_t::stall;
    const int given = (message != nullptr) + (text != nullptr) + (action.has_value() && !stalls);
    if (given != 1) {
        fail(reader,
             stalls ? "\"action\" \"stall\" wants one of \"message\" and \"text\""
                    : "an entry of \"send\" wants one of \"message\", \"text\" and \"action\"");
    }
    step.text = text != nullptr ? text : message != nullptr ? print(message) : std::string();
    const bool asks = cJSON_IsObject(message) != 0 && member(message, "method") != nullptr;
    step.kind = action ? *action : asks ? sim_kind_t::request : sim_kind_t::send;
    return step;
}

void read_sendings(reader_t* reader, const cJSON* list, sim_behaviour_t* behaviour) {
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, list) {
        behaviour->after_handshake.push_back(read_sending(reader, item));
    }
}

// ---- The handshake

void read_hello(reader_t* reader, const cJSON* item, sim_behaviour_t* behaviour) {
    if (cJSON_IsObject(item) != 0) {
        behaviour->hello = sim_hello_t::custom;
        behaviour->hello_answer = print(item);
        return;
    }
    const char* const word = cJSON_GetStringValue(item);
    if (word == nullptr || !scenario_set_hello(word, behaviour)) {
        fail(reader, "unknown \"hello\" " + print(item));
    }
}

void read_heartbeat(reader_t* reader, const cJSON* root, sim_behaviour_t* behaviour) {
    const cJSON* const item = member(root, "heartbeat");
    const std::string_view word = cJSON_IsString(item) != 0 ? item->valuestring : "";
    if (item == nullptr || cJSON_IsNumber(item) != 0) {
        behaviour->heartbeat_code = read_int(reader, root, "heartbeat", any_number, 0);
    } else if (word == "silent") {
        behaviour->heartbeat = sim_heartbeat_t::silent;
    } else if (word == "wrong_id") {
        behaviour->heartbeat = sim_heartbeat_t::wrong_id;
    } else if (word != "answer") {
        fail(reader, "unknown \"heartbeat\" " + print(item));
    }
}

// An object replaces the request of the default handshake, false leaves it out.
void read_stage(reader_t* reader, const cJSON* root, const char* key, std::string* request) {
    const cJSON* const item = member(root, key);
    if (cJSON_IsFalse(item) != 0) {
        request->clear();
    } else if (cJSON_IsObject(item) != 0) {
        *request = print(item);
    } else if (item != nullptr) {
        fail(reader, std::string("\"") + key + "\" is neither an object nor false");
    }
}

const cJSON* list_of(reader_t* reader, const cJSON* root, const char* key) {
    const cJSON* const list = member(root, key);
    if (list != nullptr && cJSON_IsArray(list) == 0) {
        fail(reader, std::string("\"") + key + "\" is not a list");
        return nullptr;
    }
    return list;
}

void read_scenario(reader_t* reader, const cJSON* root, sim_behaviour_t* behaviour) {
    if (!check_keys(reader, root, "the scenario",
                    {"hello", "heartbeat", "device_info", "verdict", "answers", "send"})) {
        return;
    }
    if (const cJSON* const hello = member(root, "hello")) {
        read_hello(reader, hello, behaviour);
    }
    read_heartbeat(reader, root, behaviour);
    read_stage(reader, root, "device_info", &behaviour->device_info);
    read_stage(reader, root, "verdict", &behaviour->verdict);
    read_answers(reader, list_of(reader, root, "answers"), behaviour);
    read_sendings(reader, list_of(reader, root, "send"), behaviour);
}

// Nothing, with errno, when it can't be read.
std::optional<std::string> read_file(const std::string& path) {
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "re"), std::fclose);
    if (file == nullptr) {
        return std::nullopt;
    }
    std::string text;
    char bytes[4096];
    for (std::size_t count = 0; (count = std::fread(bytes, 1, sizeof bytes, file.get())) > 0;) {
        text.append(bytes, count);
    }
    return std::ferror(file.get()) != 0 ? std::nullopt : std::optional(std::move(text));
}

}  // namespace

bool scenario_set_hello(std::string_view word, sim_behaviour_t* behaviour) {
    struct word_t {
        std::string_view name;
        sim_hello_t hello;
        bool takes_value;
        std::optional<int> otherwise;  // without it the value must be given
    };
    static constexpr word_t words[] = {
        {"accept", sim_hello_t::accept, false, 0},     {"refuse", sim_hello_t::refuse, true, 1},
        {"stop", sim_hello_t::stop, true, -1},         {"error", sim_hello_t::error, true, {}},
        {"wrong_id", sim_hello_t::wrong_id, false, 0}, {"silent", sim_hello_t::silent, false, 0},
    };
    const std::size_t colon = word.find(':');
    const bool has_value = colon != std::string_view::npos;
    for (const word_t& known : words) {
        if (known.name != word.substr(0, colon) || (has_value && !known.takes_value) ||
            (!has_value && !known.otherwise)) {
            continue;
        }
        int value = known.otherwise.value_or(0);
        const char* const end = word.data() + word.size();
        if (has_value) {
            const auto parsed = std::from_chars(word.data() + colon + 1, end, value);
            if (parsed.ec != std::errc() || parsed.ptr != end) {
                return false;
            }
        }
        behaviour->hello = known.hello;
        behaviour->hello_value = value;
        return true;
    }
    return false;
}

bool scenario_load(const std::string& path, sim_behaviour_t* behaviour, std::string* error) {
    const std::optional<std::string> text = read_file(path);
    if (!text) {
        *error = "cannot read the scenario " + path + ": " + std::strerror(errno);
        return false;
    }
    const json_t root(cJSON_ParseWithOpts(text->c_str(), nullptr, 1));
    if (root == nullptr) {
        *error = "the scenario " + path + " is not JSON";
        return false;
    }
    reader_t reader;
    sim_behaviour_t read = *behaviour;
    read_scenario(&reader, root.get(), &read);
    if (!reader.error.empty()) {
        *error = "the scenario " + path + ": " + reader.error;
        return false;
    }
    *behaviour = std::move(read);
    return true;
}
