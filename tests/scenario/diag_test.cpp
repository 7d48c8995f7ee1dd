// The diagnostic collector in the whole daemon, with a modem on its socket that sends as fast as it
// can: every packet is uploaded, dropped where a buffer ended, or left over at the end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "collectors/diag/diag_buffers.h"
#include "diag_record.h"
#include "modem/diag_stream.h"
#include "scenario/daemon_process.h"
#include "scenario/modem_thread.h"
#include "scenario/uploads.h"

namespace {

constexpr int CLIENT = 4;
constexpr size_t PACKET_SIZE = 1500;
constexpr uint64_t PACKETS_A_BUFFER = (DIAG_BUFFER_SIZE - 1) / PACKET_SIZE;

// The modem's count of packets sent, which it says behind `event`.
uint64_t sent(modem_thread* modem, const std::string& event) {
    EXPECT_TRUE(eventually([&] { return modem->output().find(event) != std::string::npos; }));
    const std::string text = modem->output();
    return std::stoull(text.substr(text.rfind("diag: sent ") + strlen("diag: sent ")));
}

// Follows the uploads. Behind each full buffer one packet was dropped.
uint64_t take(uint64_t delivered) {
    for (const taken_upload& upload : take_uploads(CLIENT)) {
        for (const diag_packet& packet : diag_record_packets(upload.file.payload)) {
            const uint64_t sequence = 1 + delivered + delivered / PACKETS_A_BUFFER;
            EXPECT_EQ(packet.sequence, sequence);
            const std::string expected =
                diag_stream_packet(packet.sequence, packet.log_code, PACKET_SIZE, packet.time_stamp)
                    .substr(16);
            EXPECT_EQ(memcmp(packet.data.data(), expected.data(), expected.size()), 0);
            ++delivered;
        }
        if (testing::Test::HasFailure()) break;
    }
    return delivered;
}

// VEXA_DIAG_DROPS sets for how many buffers; the rest is what the socket held and what came after
// the end.
TEST(DiagTest, NothingIsLostInBetweenAtFullSpeedUntilTheCampaignsTimeIsUp) {
    const char* text = getenv("VEXA_DIAG_DROPS");
    const uint64_t buffers = text ? strtoull(text, nullptr, 10) : 50;
    phone_reset();
    opt_in(CLIENT);
    modem_thread modem;
    modem.command("diag size " + std::to_string(PACKET_SIZE));
    modem.command("diag rate 0");
    deliver(CLIENT, "diagstats.cfg",
            "clientid=4;size=200000;campaign_id=7;campaign_duration_secs=3600;num_diag_masks=2;"
            "diag_mask=0xb0c0;diag_mask=0x1b0c1;\n");
    daemon_process daemon;
    uint64_t delivered = 0;
    const auto goes_on_until = [&](const std::function<bool()>& is_over) {
        return eventually(
            [&] {
                delivered = take(delivered);
                return HasFailure() || is_over();
            },
            10 * SCENARIO_LIMIT);
    };
    ASSERT_TRUE(goes_on_until([&] { return delivered > buffers * PACKETS_A_BUFFER; }));
    modem.command("diag sent");
    const uint64_t in_time = sent(&modem, "diag: sent ");
    phone_set_clock("real=2060-01-01T00:00:00Z");
    ASSERT_TRUE(goes_on_until(
        [&] { return modem.output().find("diag: disconnected") != std::string::npos; }));
    EXPECT_TRUE(daemon.stop());
    delivered = take(delivered);
    EXPECT_EQ(delivered % PACKETS_A_BUFFER, 0u) << "a buffer was written that was not full";
    // Of what came before the end, two buffers and what the socket held.
    const uint64_t taken = delivered + delivered / PACKETS_A_BUFFER;
    EXPECT_LT(in_time * PACKET_SIZE,
              taken * PACKET_SIZE + 2 * DIAG_BUFFER_SIZE + (size_t{1} << 20));
}

}  // namespace
