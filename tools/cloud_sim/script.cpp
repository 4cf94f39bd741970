// What the cloud says: handshakes, heartbeats, answers and the steps that a script is made of.

#include <cmath>

#include "cloud_sim/state.h"

namespace {

constexpr int too_long_code = -10102;  // the answer doesn't fit in a frame

const cJSON* member(const cJSON* object, const char* name) {
    return cJSON_GetObjectItemCaseSensitive(object, name);
}

// A view that is good until the next call on this thread; empty when it can't be a frame's text.
std::string_view print(cJSON* json) {
    static thread_local char text[sim_max_text + 64];
    if (json == nullptr || cJSON_PrintPreallocated(json, text, sizeof text, 0) == 0) {
        return {};
    }
    const std::string_view printed(text);
    return printed.size() <= sim_max_text ? printed : std::string_view();
}

bool is_number(const cJSON* item, double value) {
    return cJSON_IsNumber(item) != 0 && std::fabs(item->valuedouble - value) < 0.5;
}

void fault(sim_t* sim, const sim_device_t* device, std::string_view text) {
    log_add(sim, sim_what_t::fault, device->number, text);
}

void add_id(cJSON* answer, const cJSON* id) {
    cJSON_AddItemToObject(answer, "id", cJSON_Duplicate(id, 1));
}

std::string coded_answer(int code, const cJSON* id) {
    const json_t answer(cJSON_CreateObject());
    cJSON_AddNumberToObject(answer.get(), "error_code", code);
    add_id(answer.get(), id);
    return std::string(print(answer.get()));
}

// `text` as the answer to the request with that id; one that isn't an object, or brings an id of
// its own, stays as it is.
std::string answer_with_id(const std::string& text, const cJSON* id) {
    const json_t answer = script_parse(text);
    if (cJSON_IsObject(answer.get()) == 0 || member(answer.get(), "id") != nullptr) {
        return text;
    }
    add_id(answer.get(), id);
    const std::string_view printed = print(answer.get());
    return printed.empty() ? coded_answer(too_long_code, id) : std::string(printed);
}

// Takes "params" and "id" out of the request. The view is as good as `print`'s.
std::string_view echo(cJSON* request) {
    const json_t answer(cJSON_CreateObject());
    cJSON_AddNumberToObject(answer.get(), "error_code", 0);
    if (cJSON* const params = cJSON_DetachItemFromObjectCaseSensitive(request, "params")) {
        cJSON_AddItemToObject(answer.get(), "result", params);
    }
    cJSON_AddItemToObject(answer.get(), "id",
                          cJSON_DetachItemFromObjectCaseSensitive(request, "id"));
    const std::string_view printed = print(answer.get());
    if (!printed.empty()) {
        return printed;
    }
    cJSON_DeleteItemFromObjectCaseSensitive(answer.get(), "result");
    cJSON_SetNumberValue(cJSON_GetObjectItemCaseSensitive(answer.get(), "error_code"),
                         too_long_code);
    return print(answer.get());
}

// ---- Handshakes

void finish_handshake(sim_t* sim, sim_device_t* device, std::string_view which) {
    device->phase = phase_t::over;
    ++sim->stats.handshakes;
    log_add(sim, sim_what_t::handshaken, device->number, which);
    for (const sim_step_t& step : sim->behaviour.after_handshake) {
        engine_schedule(sim, device->number, step);
    }
}

bool is_accepting(const cJSON* answer) {
    return is_number(member(answer, "error_code"), 0) &&
           is_number(member(member(answer, "result"), "illegalType"), 0);
}

std::string hello_text(const sim_behaviour_t& behaviour) {
    const std::string value = std::to_string(behaviour.hello_value);
    switch (behaviour.hello) {
        case sim_hello_t::refuse:
            return R"({"error_code":0,"result":{"illegalType":)" + value + "}}";
        case sim_hello_t::stop:
            if (behaviour.hello_value < 0) {
                return R"({"error_code":0,"result":{"stopConnect":true}})";
            }
            return R"({"error_code":0,"result":{"stopConnect":true,"reconnectTime":)" + value +
                   "}}";
        case sim_hello_t::error:
            return R"({"error_code":)" + value + "}";
        case sim_hello_t::custom:
            return behaviour.hello_answer;
        default:
            return R"({"error_code":0,"result":{"illegalType":0}})";
    }
}

json_t changed_id(const cJSON* id) {
    return json_t(cJSON_CreateNumber(cJSON_IsNumber(id) != 0 ? id->valuedouble + 1 : 1));
}

void answer_hello(sim_t* sim, sim_device_t* device, const cJSON* id) {
    device->phase = phase_t::over;
    const sim_behaviour_t& behaviour = sim->behaviour;
    if (behaviour.hello == sim_hello_t::silent) {
        return;
    }
    const bool wrong_id = behaviour.hello == sim_hello_t::wrong_id;
    const json_t other = changed_id(id);
    const std::string text = answer_with_id(hello_text(behaviour), wrong_id ? other.get() : id);
    device_put(sim, device, text);
    if (!wrong_id && is_accepting(script_parse(text).get())) {
        finish_handshake(sim, device, "helloCloud");
    }
}

// Goes on to the next request of the default handshake that there is to send, or to its end.
void advance(sim_t* sim, sim_device_t* device) {
    if (device->phase == phase_t::start) {
        device->phase = phase_t::device_info;
        if (!sim->behaviour.device_info.empty()) {
            device->awaited = script_ask(sim, device, sim->behaviour.device_info);
            return;
        }
    }
    if (device->phase == phase_t::device_info) {
        device->phase = phase_t::verdict;
        if (!sim->behaviour.verdict.empty()) {
            device->awaited = script_ask(sim, device, sim->behaviour.verdict);
            return;
        }
    }
    finish_handshake(sim, device, "default");
}

void take_handshake_answer(sim_t* sim, sim_device_t* device, const cJSON* answer) {
    device->awaited = -1;
    if (is_number(member(answer, "error_code"), 0)) {
        advance(sim, device);
        return;
    }
    device->phase = phase_t::over;
    fault(sim, device, "the handshake's request was not answered with error_code 0");
}

void answer_heartbeat(sim_t* sim, sim_device_t* device, const cJSON* id) {
    ++sim->stats.heartbeats;
    const sim_behaviour_t& behaviour = sim->behaviour;
    if (behaviour.heartbeat == sim_heartbeat_t::silent) {
        return;
    }
    const bool wrong_id = behaviour.heartbeat == sim_heartbeat_t::wrong_id;
    const json_t other = changed_id(id);
    device_put(sim, device, coded_answer(behaviour.heartbeat_code, wrong_id ? other.get() : id));
    if (device->phase == phase_t::start && !wrong_id && behaviour.heartbeat_code == 0) {
        advance(sim, device);
    }
}

// ---- Requests and answers

void answer_request(sim_t* sim, sim_device_t* device, cJSON* request, std::string_view text,
                    std::string_view method) {
    ++sim->stats.requests;
    sim_step_t step;
    step.kind = sim->behaviour.requests;
    if (sim->behaviour.on_request) {
        step = sim->behaviour.on_request({device->number, method, text});
    }
    switch (step.kind) {
        case sim_kind_t::hold:
            sim->held.push_back({device->number, std::string(text)});
            sim->stats.held = sim->held.size();
            return;
        case sim_kind_t::echo:
            if (step.delay_ms <= 0) {
                device_put(sim, device, echo(request));
                return;
            }
            step.text = echo(request);
            step.kind = sim_kind_t::send;
            break;
        case sim_kind_t::send:
        case sim_kind_t::stall:
            step.text = answer_with_id(step.text, member(request, "id"));
            break;
        default:
            break;
    }
    if (step.delay_ms > 0) {
        engine_schedule(sim, device->number, step);
    } else {
        script_perform(sim, device, step);
    }
}

void take_answer(sim_t* sim, sim_device_t* device, const cJSON* answer, std::string_view text,
                 std::int64_t id) {
    ++sim->stats.answers;
    if (device->awaited >= 0 && id == device->awaited) {
        take_handshake_answer(sim, device, answer);
    }
    const auto asked = device->asked.find(id);
    if (asked == device->asked.end()) {
        return;
    }
    if (asked->second.waited) {
        asked->second.answer = text;
    } else {
        device->asked.erase(asked);
    }
}

void take_request(sim_t* sim, sim_device_t* device, cJSON* request, std::string_view text,
                  const head_t& head) {
    const cJSON* const id = member(request, "id");
    if (id == nullptr) {
        fault(sim, device, "a request without \"id\"");
    } else if (head.method == "heartBeat") {
        answer_heartbeat(sim, device, id);
    } else if (device->phase == phase_t::start) {
        answer_hello(sim, device, id);
    } else {
        answer_request(sim, device, request, text, head.method);
    }
}

void count_method(sim_t* sim, std::string_view method) {
    constexpr std::size_t most = 256;
    auto& methods = sim->stats.methods;
    const auto found = methods.find(method);
    if (found != methods.end()) {
        ++found->second;
    } else {
        ++methods[methods.size() < most ? std::string(method) : "(others)"];
    }
}

std::int64_t number(sim_t* sim, cJSON* request) {
    const std::int64_t id = ++sim->last_id;
    cJSON_AddNumberToObject(request, "id", static_cast<double>(id));
    return id;
}

// The text, with an "id" if it is a request that has none.
std::string numbered(sim_t* sim, const std::string& text) {
    const json_t request = script_parse(text);
    if (member(request.get(), "method") == nullptr || member(request.get(), "id") != nullptr) {
        return text;
    }
    (void)number(sim, request.get());
    return std::string(print(request.get()));
}

// The action's name, where nothing else in the log tells of it.
const char* quiet_action(sim_kind_t kind) {
    switch (kind) {
        case sim_kind_t::drop:
            return "drop";
        case sim_kind_t::stall:
            return "stall";
        case sim_kind_t::resume:
            return "resume";
        case sim_kind_t::stop_reading:
            return "stop_reading";
        case sim_kind_t::start_reading:
            return "start_reading";
        default:
            return nullptr;
    }
}

}  // namespace

json_t script_parse(std::string_view text) {
    return json_t(cJSON_ParseWithLength(text.data(), text.size()));
}

head_t script_head(const cJSON* message) {
    head_t head;
    if (const char* const method = cJSON_GetStringValue(member(message, "method"))) {
        head.method = method;
    }
    constexpr double most = 9007199254740992;  // 2^53: doubles are exact up to there
    const cJSON* const id = member(message, "id");
    if (cJSON_IsNumber(id) != 0 && std::fabs(id->valuedouble) <= most) {
        head.id = static_cast<std::int64_t>(id->valuedouble);
    }
    return head;
}

void script_message(sim_t* sim, sim_device_t* device, std::string_view text) {
    const json_t message = script_parse(text);
    if (cJSON_IsObject(message.get()) == 0) {
        fault(sim, device, "a frame without a JSON object: " + std::string(text));
        return;
    }
    head_t head = script_head(message.get());
    head.asked = head.method.empty() && device->asked.count(head.id) != 0;
    log_add(sim, sim_what_t::received, device->number, text, head);
    if (!head.method.empty()) {
        count_method(sim, head.method);
    }
    if (!head.method.empty() || device->phase == phase_t::start) {
        take_request(sim, device, message.get(), text, head);
    } else {
        take_answer(sim, device, message.get(), text, head.id);
    }
}

std::int64_t script_ask(sim_t* sim, sim_device_t* device, std::string_view text) {
    const json_t request = script_parse(text);
    if (cJSON_IsObject(request.get()) == 0) {
        return -1;
    }
    if (member(request.get(), "id") != nullptr) {
        return device_put(sim, device, text) ? script_head(request.get()).id : -1;
    }
    const std::int64_t id = number(sim, request.get());
    const std::string_view printed = print(request.get());
    return !printed.empty() && device_put(sim, device, printed) ? id : -1;
}

void script_release(sim_t* sim, const held_t& held) {
    sim_device_t* const device = device_find(sim, held.device);
    const json_t request = script_parse(held.text);
    if (device != nullptr && request != nullptr) {
        device_put(sim, device, echo(request.get()));
        device_flush(sim, device);
    }
}

bool script_perform(sim_t* sim, sim_device_t* device, const sim_step_t& step) {
    if (const char* const name = quiet_action(step.kind)) {
        log_add(sim, sim_what_t::acted, device->number, name);
    }
    switch (step.kind) {
        case sim_kind_t::send:
            return device_put(sim, device, step.text);
        case sim_kind_t::request:
            return script_ask(sim, device, step.text) >= 0;
        case sim_kind_t::raw:
            device_put_raw(sim, device, step.text);
            return true;
        case sim_kind_t::stall:
            return device_stall(sim, device, numbered(sim, step.text));
        case sim_kind_t::resume:
            device_resume(device);
            return true;
        case sim_kind_t::stop_reading:
            device->reading = false;
            return true;
        case sim_kind_t::start_reading:
            device->reading = true;
            device_make_ready(sim, device);
            return true;
        case sim_kind_t::close:
        case sim_kind_t::close_tcp:
        case sim_kind_t::reset:
            device_close(sim, device, step.kind, "here");
            return true;
        case sim_kind_t::echo:
        case sim_kind_t::hold:
        case sim_kind_t::drop:
            break;
    }
    return false;
}
