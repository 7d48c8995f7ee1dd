#include "mps_events/mps_campaign_board.h"

#include <atomic>

namespace {

std::atomic<mps_board_writer> g_writer{nullptr};

}  // namespace

void mps_board_written_by(mps_board_writer writer) {
    g_writer = writer;
}

mps_campaign_board mps_board_read() {
    mps_campaign_board board;
    if (const mps_board_writer write = g_writer) write(&board);
    return board;
}
