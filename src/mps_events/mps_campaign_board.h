// The board on which a campaign is handed to the modem statistics collector. The campaign manager
// says once who writes on it; that one writes in the moment in which the collector reads, so what
// is read is what is in force then, and not what was when the collector's event was raised.
#pragma once

#include <cstdint>

#include "base/owned_bytes.h"

inline constexpr uint32_t CAMPAIGN_INVALID_SUB = 0x7FFFFFFF;

struct phone_state {
    uint32_t default_sub = CAMPAIGN_INVALID_SUB;
    uint8_t roaming = 0;  // of the default subscription
    uint16_t mcc = 0;
    uint16_t mnc = 0;
};

struct mps_campaign_board {
    owned_bytes logic{};  // no bytes: there is no campaign, or it cannot be read
    uint32_t campaign_id = 0;
    phone_state phone{};
};

// Writes on an empty board. Called in the collector's thread, which holds no lock; it may take the
// campaign lock.
using mps_board_writer = void (*)(mps_campaign_board* board);

// Says who writes on the board, for the rest of the process's life. Any thread.
void mps_board_written_by(mps_board_writer writer);

// The campaign as it is now; an empty board while nobody writes on it. Not logged here. Thread: the
// collector's.
mps_campaign_board mps_board_read();
