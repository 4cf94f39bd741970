// What the daemon's messages mean to a client.
#include <string.h>

#include "connection.h"
#include "envelope.h"

namespace {

outcome_t answer_take_unsafe(cloud_svr_client_t* client, const cJSON* message)
    REQUIRES(client->lock) {
    const cJSON* const result = json_get(message, "inner_result");
    if (json_get(message, "inner_id") != nullptr) {
        return calls_answer(&client->calls, json_get_int(message, "inner_id"),
                            json_get_int(message, "inner_error_code"), json_get_int(result, "id"));
    }
    const char* const response = json_get_string(result, "response");
    if (response == nullptr) {
        return outcome_t{};
    }
    return calls_cloud_answer(&client->calls, json_get_int(result, "id"), response);
}

int32_t agent_answer(const task_t& task, const char* request, text_ptr* answer) {
    if (!task.has_agent || request == nullptr) {
        return CLOUD_SVR_E_GENERAL;
    }
    char* text = nullptr;
    const int32_t code = task.agent.on_request(task.agent.arg, request, &text);
    answer->reset(text);
    return code == 0 && text == nullptr ? CLOUD_SVR_E_GENERAL : code;
}

void cloud_request_run(cloud_svr_client_t* client, const task_t& task) {
    const cJSON* const message = task.message.get();
    const char* const request = json_get_string(json_get(message, "inner_params"), "request");
    text_ptr answer;
    const int32_t code = agent_answer(task, request, &answer);
    (void)connection_send(
        client, envelope_cloud_answer(json_get_int(message, "inner_id"), code, answer.get()));
}

// Without a request the daemon gives up its attempt to connect by itself.
void hello_request_run(cloud_svr_client_t* client, const task_t& task) {
    if (!task.has_agent || task.agent.on_hello_request == nullptr) {
        return;
    }
    char* text = nullptr;
    const int32_t code = task.agent.on_hello_request(task.agent.arg, &text);
    const text_ptr request(text);
    if (code == 0 && request != nullptr) {
        (void)connection_send(client, envelope_hello_request(request.get()));
    }
}

void hello_answer_run(const task_t& task) {
    const char* const answer =
        json_get_string(json_get(task.message.get(), "inner_params"), "response");
    if (task.has_agent && task.agent.on_hello_answer != nullptr && answer != nullptr) {
        task.agent.on_hello_answer(task.agent.arg, answer);
    }
}

}  // namespace

void message_take_unsafe(cloud_svr_client_t* client, json_ptr message, task_t* task) {
    if (json_get(message.get(), "inner_method") == nullptr) {
        task->outcome = answer_take_unsafe(client, message.get());
        return;
    }
    task->message = std::move(message);
    task->has_agent = client->has_agent;
    task->agent = client->agent;
}

void task_run(cloud_svr_client_t* client, const task_t& task) {
    if (task.outcome.on_answer != nullptr) {
        task.outcome.on_answer(task.outcome.arg, task.outcome.code, task.outcome.answer.get());
    }
    const char* const method = json_get_string(task.message.get(), "inner_method");
    if (method == nullptr) {
        return;
    }
    if (strcmp(method, "cloud_request") == 0) {
        cloud_request_run(client, task);
    } else if (strcmp(method, "request_of_hello_cloud") == 0) {
        hello_request_run(client, task);
    } else if (strcmp(method, "response_of_hello_cloud") == 0) {
        hello_answer_run(task);
    }
}
