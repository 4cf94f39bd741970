// cloud_ctl check: looks at a configuration with the daemon's own loader.
#pragma once

#include <string>

// Says what is wrong with the file in plain words, or that nothing is: exit code 1 or 0.
int check_run(const std::string& path, bool json);
