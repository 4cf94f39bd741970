// A shell command that answers the cloud's requests.
#pragma once

#include <string>

// Runs `command` with `request` as its standard input; its standard output, without the newline at
// its end. Empty, said on standard error, when it fails or takes longer than 10 s: it is killed
// then.
std::string command_answer(const std::string& command, const std::string& request);
