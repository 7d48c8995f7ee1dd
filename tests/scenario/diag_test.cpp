// The diagnostic collector in the whole daemon, with a modem on its socket: every packet that the
// modem sends is uploaded, dropped where a buffer ended, or left over at the end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <utility>

#include "collectors/diag/diag_buffers.h"
#include "diag_record.h"
#include "modem/diag_stream.h"
#include "scenario/daemon_process.h"
#include "scenario/modem_thread.h"
#include "scenario/uploads.h"
#include "support/files.h"

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr int CLIENT = 4;
constexpr size_t SIZE_MIN = 100;
constexpr size_t SIZE_MAX_BYTES = 1500;

std::string config(int id, int duration_s, int size = 200000) {
    return "clientid=4;size=" + std::to_string(size) + ";campaign_id=" + std::to_string(id) +
           ";campaign_duration_secs=" + std::to_string(duration_s) +
           ";num_diag_masks=2;diag_mask=0xb0c0;diag_mask=0x1b0c1;\n"
           "Active Campaign=-1;Stop Time=0;";
}

// Follows the uploads, and by the packets' sizes what had to be dropped where a buffer ended.
class account {
  public:
    void take() {
        for (const taken_upload& upload : take_uploads(CLIENT)) {
            EXPECT_EQ(upload.file.header.seq, next_upload_);
            next_upload_ += 2;
            const auto packets = diag_record_packets(upload.file.payload);
            EXPECT_EQ(packets.empty(), upload.file.payload.empty());
            for (const diag_packet& packet : packets) check(packet);
        }
    }

    uint64_t delivered = 0;
    uint64_t dropped = 0;

    // The bytes beyond that of what the modem had sent by then. To be called once, at the end.
    size_t rest(uint64_t sent) {
        if (delivered > 0) {
            EXPECT_FALSE(fits()) << "a buffer was written that was not full";
            drop();
        }
        size_t bytes = 0;
        for (; next_ <= sent; ++next_) bytes += size();
        return bytes;
    }

  private:
    void check(const diag_packet& packet) {
        if (!fits()) drop();
        ASSERT_EQ(packet.sequence, next_);
        ASSERT_EQ(packet.length, size());
        ASSERT_TRUE(packet.log_code == 0xb0c0 || packet.log_code == 0xb0c1);
        const std::string expected =
            diag_stream_packet(next_, packet.log_code, size(), packet.time_stamp).substr(16);
        ASSERT_EQ(memcmp(packet.data.data(), expected.data(), expected.size()), 0);
        used_ += size();
        ++next_;
        ++delivered;
    }
    size_t size() const { return diag_stream_size(next_, SIZE_MIN, SIZE_MAX_BYTES); }
    bool fits() const { return used_ + size() < DIAG_BUFFER_SIZE; }
    void drop() {  // the packet with which its buffer was handed over
        ++dropped;
        ++next_;
        used_ = 0;
    }

    uint32_t next_upload_ = 1;
    uint32_t next_ = 1;
    size_t used_ = 0;
};

class DiagTest : public ::testing::Test {
  protected:
    void SetUp() override {
        phone_reset();
        opt_in(CLIENT);
        fs::create_directories(DOWN_DIR + std::string("/4"));
        modem.command("diag size " + std::to_string(SIZE_MIN) + " " +
                      std::to_string(SIZE_MAX_BYTES));
    }
    // The modem's count of packets sent, which it says behind `event`.
    uint64_t sent(const std::string& event) {
        EXPECT_TRUE(eventually([&] { return modem.output().find(event) != std::string::npos; }))
            << modem.output();
        const std::string text = modem.output();
        return std::stoull(text.substr(text.rfind("diag: sent ") + strlen("diag: sent ")));
    }
    uint64_t sent_in_all() { return sent("diag: disconnected\n"); }
    static void print(const account& packets, uint64_t sent) {
        printf("%lu sent: %lu delivered, %lu dropped where a buffer ended, %lu left\n", sent,
               packets.delivered, packets.dropped, sent - packets.delivered - packets.dropped);
    }

    modem_thread modem;
};

TEST_F(DiagTest, EveryPacketIsUploadedDroppedAtABuffersEndOrLeftInTheLast) {
    constexpr uint64_t PACKETS = 3000;
    modem.command("diag rate 20000");
    modem.command("diag count " + std::to_string(PACKETS));
    daemon_process daemon;
    ASSERT_TRUE(eventually_logged("DIAGSTATS: Waiting on /data/vendor/vexa/down/4/diagstats.cfg"));
    deliver(CLIENT, "diagstats.cfg", config(7, 3600));
    ASSERT_TRUE(eventually_logged(" Received 3000 Logs.Last Sig 0x0"));
    EXPECT_TRUE(daemon.stop());

    account packets;
    packets.take();
    EXPECT_EQ(sent_in_all(), PACKETS);
    EXPECT_LT(packets.rest(PACKETS), DIAG_BUFFER_SIZE);
    EXPECT_GT(packets.dropped, 10u);
    print(packets, PACKETS);
    EXPECT_THAT(modem.output(), HasSubstr("diag: registered: processor 0, peripherals 2\n"
                                          "diag: codes wanted: 45248 45249\n"));
    EXPECT_THAT(modem.output(), HasSubstr("diag: codes no longer wanted: 45248 45249\n"));
    EXPECT_THAT(phone_log(), HasSubstr("Thread Stat: TRUE"));
}

// VEXA_DIAG_DROPS sets for how many buffers; the rest is what the socket held and what came after
// the end.
TEST_F(DiagTest, NothingIsLostInBetweenAtFullSpeedUntilTheCampaignsTimeIsUp) {
    const char* text = getenv("VEXA_DIAG_DROPS");
    const uint64_t drops = text ? strtoull(text, nullptr, 10) : 50;
    modem.command("diag rate 0");
    deliver(CLIENT, "diagstats.cfg", config(7, 3600));
    daemon_process daemon;
    account packets;
    ASSERT_TRUE(eventually(
        [&] {
            packets.take();
            return packets.dropped > drops;
        },
        10 * SCENARIO_LIMIT));
    modem.command("diag sent");
    const uint64_t in_time = sent("diag: sent ");
    phone_set_clock("real=2060-01-01T00:00:00Z");
    ASSERT_TRUE(eventually([&] {
        packets.take();
        return modem.output().find("diag: disconnected") != std::string::npos;
    }));
    EXPECT_THAT(phone_log(), HasSubstr("Stopping Diag Campaign 7"));
    EXPECT_TRUE(daemon.stop());
    packets.take();
    // Of what came before the end, two buffers and what the socket held.
    EXPECT_LT(packets.rest(in_time), 2 * DIAG_BUFFER_SIZE + (size_t{1} << 20));
    print(packets, sent_in_all());
}

TEST_F(DiagTest, CampaignGoesOnAfterARestartUntilTheClockSaysOtherwise) {
    deliver(CLIENT, "diagstats.cfg", config(7, 3600));
    for (int start = 0; start < 2; ++start) {
        fs::remove("/dev/log/main");
        daemon_process daemon;
        ASSERT_TRUE(eventually_logged("Starting Diag Campaign 7"));
        EXPECT_TRUE(daemon.stop());
        EXPECT_EQ(take_uploads(CLIENT).size(), 1u);
        EXPECT_THAT(phone_log(), Not(HasSubstr("Stopping Diag Campaign")));
    }
    daemon_process daemon;
    ASSERT_TRUE(eventually([&] {
        const std::string log = phone_log();
        return log.find("Starting Diag Campaign 7", log.find("vexastatsd stopped")) != log.npos;
    }));
    // The modem has met its third client; other collectors log in between.
    ASSERT_TRUE(eventually([&] {
        const std::string output = modem.output();
        size_t clients = 0;
        for (size_t at = 0; (at = output.find("diag: registered", at)) != output.npos; ++at)
            ++clients;
        return clients >= 3;
    })) << modem.output();
    modem.command("diag status 0x10002");
    ASSERT_TRUE(eventually_logged("diag: DIAG_STATUS_OPEN on DIAG_CON_MPSS\n"));
    ASSERT_TRUE(eventually_logged("diag: Modem supports DCI\n"));
    modem.command("diag close");
    ASSERT_TRUE(eventually_logged("diag: DIAG_STATUS_CLOSED on DIAG_CON_MPSS\n"));
    phone_set_clock("real=2060-01-01T00:00:00Z");
    ASSERT_TRUE(eventually_logged("Stopping Diag Campaign 7"));
    EXPECT_TRUE(daemon.stop());
}

}  // namespace
