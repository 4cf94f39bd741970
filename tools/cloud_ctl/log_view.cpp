#include "cloud_ctl/log_view.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <iostream>
#include <string_view>
#include <utility>

#include "common/output.h"
#include "util/json.h"

namespace {

// One line of the log in its columns.
struct line_t {
    std::string whole;
    bool parsed = false;
    std::string time, level, process, thread, file, line, function, message;
};

// The columns' separator.
constexpr std::string_view kBar = " | ";

// Takes the next column off; empty, with nothing taken, when there is no bar any more.
std::string column_take(std::string_view* rest) {
    const size_t end = rest->find(kBar);
    if (end == std::string_view::npos) {
        return "";
    }
    const std::string_view column = rest->substr(0, end);
    rest->remove_prefix(end + kBar.size());
    return std::string(column.substr(std::min(column.find_first_not_of(' '), column.size())));
}

bool is_level(const std::string& word) {
    return word == "ERROR" || word == "WARN" || word == "INFO" || word == "DEBUG";
}

// Takes what is behind the last `mark` of `column` away from it.
std::string tail_take(std::string* column, char mark) {
    const size_t at = column->rfind(mark);
    if (at == std::string::npos) {
        return "";
    }
    std::string tail = column->substr(at + 1);
    column->erase(at);
    return tail;
}

line_t parse(const std::string& text) {
    line_t line;
    line.whole = text;
    std::string_view rest = text;
    line.level = column_take(&rest);
    if (!is_level(line.level)) {
        line.time = line.level;
        line.level = column_take(&rest);
    }
    line.process = column_take(&rest);
    line.thread = tail_take(&line.process, ':');
    line.file = column_take(&rest);
    line.line = tail_take(&line.file, ':');
    line.function = column_take(&rest);
    line.parsed = is_level(line.level) && !line.function.empty() && rest.starts_with("- ");
    line.message = line.parsed ? rest.substr(2) : rest;
    return line;
}

std::string module_of(const line_t& line) {
    const size_t slash = line.file.rfind('/');
    const std::string name = slash == std::string::npos ? line.file : line.file.substr(slash + 1);
    return name.substr(0, name.rfind('.'));
}

bool is_among(const std::vector<std::string>& names, const std::string& name) {
    return names.empty() || std::any_of(names.begin(), names.end(), [&](const std::string& n) {
               return n == name || n == name + ".c";
           });
}

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Whether the message speaks of that client.
bool is_of_client(const line_t& line, int client) {
    const std::string number = std::to_string(client);
    return line.message.starts_with("IPC send to " + number + ":") ||
           line.message.starts_with("IPC receive from " + number + ":") ||
           line.message.starts_with("register client: " + number + ",") ||
           line.message == "unregister client: " + number ||
           line.message == "client is closed, socket: " + number;
}

// Whether `text` holds the member with just that number.
bool holds_number(const std::string& text, const std::string& name, const std::string& number) {
    const std::string member = "\"" + name + "\":" + number;
    for (size_t at = text.find(member); at != std::string::npos; at = text.find(member, at + 1)) {
        const size_t end = at + member.size();
        if (end >= text.size() || text[end] < '0' || text[end] > '9') {
            return true;
        }
    }
    return false;
}

// Whether the line belongs to the way of a request with that message id, or of the cloud's. What a
// client sends without "inner_method" answers the cloud's message of that id.
bool is_of_id(const line_t& line, const std::string& id) {
    const std::string& message = line.message;
    const bool from_client = message.starts_with("IPC receive from ");
    if (from_client || message.starts_with("IPC send to ")) {
        const bool asked = holds(message, "\"inner_method\":\"cloud_request\"");
        const bool answered = from_client && !holds(message, "\"inner_method\":");
        return (!from_client && holds_number(message, "id", id)) ||
               ((asked || answered) && holds_number(message, "inner_id", id));
    }
    if (message.starts_with("client send:") || message.starts_with("client receive:")) {
        return holds_number(message, "id", id);
    }
    return holds(message, "msg_id=" + id + ",");
}

// The way of one id. What a client asked comes before its id is known, so it is kept for a while:
// the descriptor and "inner_id" of the daemon's answer tell which it was.
struct way_t {
    std::deque<line_t> asked;
    line_t sent;  // to the cloud, held back until the next line tells what was asked
};

constexpr size_t kAskedKept = 1000;

std::string number_behind(const std::string& text, const std::string& mark) {
    const size_t at = text.find(mark);
    if (at == std::string::npos) {
        return "";
    }
    const size_t begin = at + mark.size();
    return text.substr(begin, text.find_first_not_of("0123456789", begin) - begin);
}

// The message that the client sent and that this line answers, if it is kept.
const line_t* question_of(const way_t& way, const line_t& answer) {
    const std::string client = number_behind(answer.message, "IPC send to ");
    const std::string inner_id = number_behind(answer.message, "\"inner_id\":");
    if (client.empty() || inner_id.empty()) {
        return nullptr;
    }
    const auto found = std::find_if(way.asked.rbegin(), way.asked.rend(), [&](const line_t& line) {
        return number_behind(line.message, "IPC receive from ") == client &&
               holds(line.message, "\"inner_method\":") &&
               holds_number(line.message, "inner_id", inner_id);
    });
    return found == way.asked.rend() ? nullptr : &*found;
}

const char* colour_of(const std::string& level) {
    if (level == "ERROR") {
        return "\033[31m";
    }
    if (level == "WARN") {
        return "\033[33m";
    }
    return level == "INFO" ? "\033[32m" : "\033[2m";
}

void print_json(const line_t& line) {
    const json_ptr json(cJSON_CreateObject());
    (void)json_add_string(json.get(), "time", line.time.c_str());
    (void)json_add_string(json.get(), "level", line.level.c_str());
    (void)json_add_string(json.get(), "process", line.process.c_str());
    (void)json_add_string(json.get(), "thread", line.thread.c_str());
    (void)json_add_string(json.get(), "file", line.file.c_str());
    (void)json_add_string(json.get(), "line", line.line.c_str());
    (void)json_add_string(json.get(), "function", line.function.c_str());
    (void)json_add_string(json.get(), "message", line.message.c_str());
    printf("%s\n", json_print(json.get()).get());
}

void print(const line_t& line, const log_options_t& options) {
    if (options.json) {
        print_json(line);
    } else if (options.colour && line.parsed) {
        printf("%s%s\033[0m\n", colour_of(line.level), line.whole.c_str());
    } else {
        printf("%s\n", line.whole.c_str());
    }
    (void)output_flush();
}

bool has_filter(const log_options_t& options) {
    return !options.levels.empty() || !options.modules.empty() || options.client >= 0 ||
           options.id >= 0;
}

bool passes(const line_t& line, const log_options_t& options) {
    if (!line.parsed) {
        return !has_filter(options) && !options.json;
    }
    return is_among(options.levels, line.level) && is_among(options.modules, module_of(line)) &&
           (options.client < 0 || is_of_client(line, options.client));
}

void print_passing(const line_t& line, const log_options_t& options) {
    if (line.parsed && passes(line, options)) {
        print(line, options);
    }
}

void way_keep(way_t* way, const line_t& line) {
    if (!line.message.starts_with("IPC receive from ")) {
        return;
    }
    way->asked.push_back(line);
    if (way->asked.size() > kAskedKept) {
        way->asked.pop_front();
    }
}

void view_way(way_t* way, const line_t& line, const log_options_t& options) {
    way_keep(way, line);
    if (!is_of_id(line, std::to_string(options.id))) {
        return;
    }
    const line_t* const question = question_of(*way, line);
    if (question != nullptr) {
        print_passing(*question, options);
    }
    print_passing(std::exchange(way->sent, line_t{}), options);
    if (line.message.starts_with("client send:") && holds(line.message, "\"method\":")) {
        way->sent = line;
    } else {
        print_passing(line, options);
    }
}

}  // namespace

bool log_view(const log_options_t& options) {
    way_t way;
    std::string text;
    while (output_flush() && std::getline(std::cin, text)) {
        const line_t line = parse(text);
        if (options.id >= 0) {
            view_way(&way, line, options);
        } else if (passes(line, options)) {
            print(line, options);
        }
    }
    print_passing(way.sent, options);
    if (ferror(stdin) != 0) {
        perror("cloud_ctl: standard input");
        return false;
    }
    return true;
}
