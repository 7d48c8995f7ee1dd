// A downloaded band list on its way into the modem.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/owned_bytes.h"
#include "collectors/mccbandlist/mccbandlist_header.h"
#include "framework/time/stop.h"

// The longest list that is read.
inline constexpr size_t MCCBANDLIST_FILE_MAX = size_t{1} << 20;

// All functions: the updater's thread. Failures are logged. A raised `stop` ends every wait for the
// modem, which then counts as a failure.

// Loads the list in file `path` into the modem if it is newer than the modem's own. The file is
// deleted once it was read, whatever comes of it. Returns 0 when it was loaded, else -EINVAL.
int mccbandlist_dload_handler(const char* path, const stop_flag& stop);

// Reads a whole file. Returns 0 or -EINVAL.
int mccbandlist_read_dl_file(const char* path, owned_bytes* file);

// The header of the list that the modem holds under that database id. Returns 0 or -1.
int mccbandlist_get_mbl_info(uint32_t db_id, mccbandlist_header* header, const stop_flag& stop);

// Loads a list into the modem. Returns 0 or -EINVAL.
int mccbandlist_send_to_mmcp(const uint8_t* bytes, size_t size, uint32_t db_id,
                             const stop_flag& stop);
