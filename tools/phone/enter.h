// Puts the calling process itself into a phone: no process more, and a debugger works.
#pragma once

#include <string>

#include "phone/mounts.h"

// Enters the phone of options.dir; with an empty dir a fresh one, held in memory and gone with its
// last process (its tree is then seen at PHONE_IN_MEMORY too). The process must have one thread. It
// has a mount namespace of its own afterwards, and as root no power left over files' permissions.
// Needs root or user namespaces. Throws std::exception; the process is then good for nothing but an
// error message.
void phone_enter(const phone_options& options);

// Gives up every capability, for this process and those it starts, so that permissions mean
// something to root as well. Throws std::system_error.
void phone_drop_capabilities();

inline constexpr char PHONE_IN_MEMORY[] = "/.phone";

// Puts this machine's /proc over the phone's. To be called at the end of main: the leak check of a
// sanitizer then finds the threads of the process. Does nothing on failure.
void phone_show_host_proc();
