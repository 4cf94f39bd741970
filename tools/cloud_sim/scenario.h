// What the cloud does, read from a file or from the words of --hello.
#pragma once

#include <string>
#include <string_view>

#include "cloud_sim/engine.h"

// accept, refuse[:TYPE], stop[:SECONDS], error:CODE, wrong_id or silent. False for other words;
// `behaviour` is then as it was.
bool scenario_set_hello(std::string_view word, sim_behaviour_t* behaviour);

// Changes in `behaviour` what the file says. False with one line in `error` when the file can't be
// read, isn't JSON, has an unknown key or a value of the wrong kind.
bool scenario_load(const std::string& path, sim_behaviour_t* behaviour, std::string* error);
