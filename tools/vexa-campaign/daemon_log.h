// The log of the daemon's functions that this tool calls: kept here, shown to nobody.
#pragma once

#include <string>

void daemon_log_clear();

// The first failure that was logged since, without its newline.
std::string daemon_log_first_error();
