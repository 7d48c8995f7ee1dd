#pragma once

#include <atomic>

// Whether this is an "eng" or "userdebug" build of the phone, which honours test overrides.
// Set once at start-up, before any other thread runs.
inline std::atomic<bool> g_is_debug_build{false};
