// The optional object "link" of the configuration. It is strict where the rest is lenient: what
// can't be enforced is an error, so that nobody takes a link for safer than it is.
#pragma once

#include <stdint.h>

#include "config.h"
#include "util/json.h"

// Fills `config->link` from the object "link" of `json`, checked together with what the settings
// hold already; nothing happens without that object. Everything that is wrong is logged, a line
// each. As all over the configuration, the letter case of a name doesn't count: two names that
// differ in nothing else are one key given twice. Ends the process, with the exit code of a failed
// start, when there is no memory to set up OpenSSL.
//   0, or the first error's code: -10100, -20106, -10000.
int32_t config_link_fill(config_t* config, const cJSON* json);

// Logs the settings. NULL: nothing.
void config_link_print(const link_options_t* link);

// NULL: nothing.
void config_link_free(link_options_t* link);
