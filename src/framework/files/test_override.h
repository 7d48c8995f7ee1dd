// The file by which a test gives a debug build of the phone other settings.
#pragma once

#include <cstddef>

// Reads one line of the test override file into `buf` (size bytes). Returns false when there is no
// such file (silently) or it cannot be read (logged). Any thread.
bool vexastats_get_test_config_file(char* buf, size_t size);
