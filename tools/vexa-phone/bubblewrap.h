// The phone as bubblewrap makes it: namespaces of its own for mounts, users and processes.
#pragma once

#include <string>
#include <vector>

#include "phone/mounts.h"

// The words of a call of bubblewrap that runs `command` in the phone.
std::vector<std::string> bubblewrap_words(const std::vector<mount_step>& steps,
                                          const phone_options& options,
                                          const std::vector<std::string>& command);
