// The header of a band list, as it stands at the beginning of a list's file and in what the modem
// tells of the list that it holds.
#pragma once

#include <cstddef>
#include <cstdint>

#include "collectors/mccbandlist/pdc_service.h"

inline constexpr size_t MCCBANDLIST_HEADER_SIZE = 40;
inline constexpr size_t MCCBANDLIST_OWNER_SIZE = 30;

struct mccbandlist_header {
    uint8_t is_little = 0;  // 1 or 0, whatever the file has for 0
    uint8_t st_v = 0;       // version of the list's structure
    char owner_n[MCCBANDLIST_OWNER_SIZE + 1] = "";
    uint32_t db_id = 0;
    uint32_t cont_v = 0;  // version of its contents
};

// Reads the header from the first of `size` bytes; its fields are logged. Returns 0, or -EINVAL,
// logged, when an argument is null or there are too few bytes. Any thread.
int mccbandlist_read_header(const uint8_t* bytes, size_t size, mccbandlist_header* header);

// Whether list `next` may take the place of list `current`; why not is logged. Any thread.
bool mccbandlist_is_new_ver(const mccbandlist_header& current, const mccbandlist_header& next);

// The id and the type by which the modem knows a list.
inline constexpr uint32_t MCCBANDLIST_CONFIG_TYPE = 16;
pdc_config_id mccbandlist_config_id(uint32_t db_id);
