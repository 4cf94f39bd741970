#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>

#include <CLI/CLI.hpp>

#include "cloud_ctl/check.h"
#include "cloud_ctl/log_view.h"
#include "cloud_ctl/talk.h"
#include "common/output.h"

namespace {

struct options_t {
    talk_options_t talk;
    request_options_t request;
    register_options_t registration;
    log_options_t log;
    std::string config;
    std::string colour = "auto";
    int exit_code = exit_ok;  // of the command that ran
};

const CLI::Validator positive = CLI::Range(1, INT32_MAX).description("");
const CLI::Validator natural = CLI::Range(0, INT32_MAX).description("");

// An empty word is a variable of the caller's that isn't set, not a wish for the default.
const CLI::Validator given(
    [](const std::string& word) { return word.empty() ? std::string("is empty") : std::string(); },
    "");

void request_add(CLI::App* app, options_t* options) {
    CLI::App* const command = app->add_subcommand("request", "Ask the cloud, print its answer");
    command->add_option("JSON", options->request.request, "The request, with its \"method\"")
        ->required();
    command
        ->add_option("--timeout", options->request.timeout_ms,
                     "How long all of it may take, in ms (default: as the daemon is configured)")
        ->check(positive)
        ->type_name("MS");
    command->add_flag("--connect", options->request.connect,
                      "Connect to the cloud first if needed");
    command->callback(
        [options] { options->exit_code = talk_request(options->talk, options->request); });
}

void register_add(CLI::App* app, options_t* options) {
    CLI::App* const command =
        app->add_subcommand("register", "Stay as the device's agent and answer the cloud");
    command
        ->add_option("--hello-cloud", options->registration.hello_file,
                     "Shake hands with the helloCloud request in this file")
        ->check(given)
        ->type_name("FILE");
    CLI::Option* const answer = command->add_option("--answer", options->registration.answer,
                                                    "Answer to each request of the cloud");
    CLI::Option* const exec =
        command
            ->add_option("--exec", options->registration.command,
                         "Shell command that reads a request and prints its answer")
            ->check(given)
            ->type_name("COMMAND")
            ->excludes(answer);
    command
        ->add_option("--timeout", options->registration.command_ms,
                     "How long the command may take, in ms (default: 10000)")
        ->check(positive)
        ->type_name("MS")
        ->needs(exec);
    command->callback(
        [options] { options->exit_code = talk_register(options->talk, options->registration); });
}

void log_run(options_t* options) {
    options->log.json = options->talk.json;
    options->log.colour =
        options->colour == "always" || (options->colour == "auto" && isatty(STDOUT_FILENO) != 0);
    options->exit_code = log_view(options->log) ? exit_ok : exit_failed;
}

void log_add(CLI::App* app, options_t* options) {
    CLI::App* const command =
        app->add_subcommand("log", "Filter and colour a daemon's log read on standard input");
    command->add_option("--level", options->log.levels, "ERROR, WARN, INFO, DEBUG; may be repeated")
        ->transform(CLI::IsMember({"ERROR", "WARN", "INFO", "DEBUG"}, CLI::ignore_case));
    command->add_option("--module", options->log.modules, "Source module; may be repeated");
    command->add_option("--client", options->log.client, "Lines of the client with this socket")
        ->check(natural)
        ->type_name("NUMBER");
    command->add_option("--id", options->log.id, "The whole way of the message with this id")
        ->check(natural)
        ->type_name("NUMBER");
    command->add_option("--color", options->colour, "When to colour: auto (default), always, never")
        ->check(CLI::IsMember({"auto", "always", "never"}));
    command->callback([options] { log_run(options); });
}

void options_add(CLI::App* app, options_t* options) {
    app->require_subcommand(1);
    app->footer("--socket and --json may come before or behind a command. See cloud_ctl(1).");
    app->fallthrough();
    app->add_option("--socket", options->talk.socket,
                    "The daemon's socket (default: /tmp/cloud_svr)")
        ->check(given)
        ->type_name("PATH");
    app->add_flag("--json", options->talk.json, "Machine-readable output");
}

void reconnect_add(CLI::App* app, options_t* options) {
    app->add_subcommand("reconnect", "Drop the connection to the cloud and connect again")
        ->callback([options] { options->exit_code = talk_reconnect(options->talk); });
}

void check_add(CLI::App* app, options_t* options) {
    CLI::App* const command =
        app->add_subcommand("check", "Say what is wrong with a configuration");
    command->add_option("FILE", options->config, "The configuration")->required();
    command->callback(
        [options] { options->exit_code = check_run(options->config, options->talk.json); });
}

int run(int argc, char** argv) {
    options_t options;
    CLI::App app("Talks to the cloud_svr daemon on this device");
    options_add(&app, &options);
    request_add(&app, &options);
    register_add(&app, &options);
    reconnect_add(&app, &options);
    check_add(&app, &options);
    log_add(&app, &options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app.exit(error);  // --help
        }
        const bool is_unknown = app.get_subcommands().empty() && app.remaining_size() > 0;
        const std::string reason =
            is_unknown ? "no such command or option: " + app.remaining().front() : error.what();
        fprintf(stderr, "cloud_ctl: %s (see cloud_ctl --help)\n", reason.c_str());
        return exit_usage;
    }
    return options.exit_code;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const int code = output_prepare() ? run(argc, argv) : exit_failed;
        return output_flush() ? code : exit_failed;
    } catch (const std::exception& error) {
        fprintf(stderr, "cloud_ctl: %s\n", error.what());
        return exit_failed;
    }
}
