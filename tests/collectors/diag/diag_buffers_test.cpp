// The hand-over between the library's thread and the collector's, into a real record.
#include "collectors/diag/diag_buffers.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>

#include <string>
#include <thread>

#include "collectors/diag/diag_campaign.h"
#include "support/events.h"
#include "support/files.h"
#include "support/log.h"

namespace fs = std::filesystem;

namespace {

constexpr char DIR[] = "/data/vendor/vexastats/4";
constexpr char UP_DIR[] = "/data/vendor/vexa/up/4";
constexpr int SIZE = DIAG_BUFFER_SIZE;

class DiagBuffers : public ::testing::Test {
  protected:
    void SetUp() override {
        fs::remove_all(DIR);
        fs::create_directories(DIR);
        fs::create_directories(UP_DIR);
        row.enabled = 1;
        ASSERT_EQ(stop_flag_open(&row.stop), 0);
        record_init_req req{.row = &row, .dir = DIR, .prefix = "diagstats.tmp"};
        campaign.record.file = vexastats_record_init(&req);
        ASSERT_TRUE(campaign.record.file);
        ASSERT_EQ(diag_dci_init_buffers(), 0);
    }
    void TearDown() override {
        diag_dci_release_buffers();
        vexastats_record_close(&campaign.record);
        close(row.stop.fd);
    }

    static void put(int size, char fill, int type = DIAG_TYPE_LOG) {
        const std::string packet(static_cast<size_t>(size), fill);
        diag_dci_copy_to_buffer(type, reinterpret_cast<const uint8_t*>(packet.data()), size);
    }
    // What the consumer has written.
    std::string written() {
        const std::string text = file_text(row.rec_fname);
        return text.substr(text.find('\n') + 1);
    }

    collector_info row{
        .name = "diag_collector", .up_dir = UP_DIR, .size = INT32_MAX, .hdr = {.client_id = 4}};
    timed_campaign campaign{.kind = &DIAG_CAMPAIGN, .row = &row};
};

TEST_F(DiagBuffers, OnlyFullBuffersAreWrittenAndThePacketThatDidNotFitIsDropped) {
    const struct {
        const char* what;
        int packets[3];
        int type;
        std::string written;
    } cases[] = {
        {"one byte of room stays free",
         {SIZE - 11, 10, 1},
         DIAG_TYPE_LOG,
         std::string(SIZE - 11, '0') + std::string(10, '1')},
        {"exactly full is full", {SIZE - 10, 10, 1}, DIAG_TYPE_LOG, std::string(SIZE - 10, '0')},
        {"nearly full is not written", {SIZE - 11, 10, 0}, DIAG_TYPE_LOG, ""},
        {"larger than a buffer", {SIZE, 10, 1}, DIAG_TYPE_LOG, ""},
        {"the largest", {INT32_MAX, 10, 1}, DIAG_TYPE_PREFIXED, ""},
        {"the prefix takes room",
         {SIZE - 12, 9, 1},
         DIAG_TYPE_PREFIXED,
         "`" + std::string(SIZE - 12, '0') + "`" + std::string(9, '1')},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TearDown();
        SetUp();
        std::string filler(SIZE, '0');
        diag_dci_copy_to_buffer(c.type, reinterpret_cast<const uint8_t*>(filler.data()),
                                c.packets[0]);
        put(c.packets[1], '1', c.type);
        if (c.packets[2] > 0) put(c.packets[2], '2', c.type);
        EXPECT_EQ(process_incoming_pkt(&campaign, 0), 0);
        EXPECT_TRUE(written() == c.written) << written().size();
    }
}

// Fills as fast as it can until told to end; counts what it handed to the buffers.
class producer {
  public:
    ~producer() { join(); }
    void join() {
        end = true;
        diag_dci_shut_buffers();
        if (thread.joinable()) thread.join();
    }
    std::atomic<bool> end{false};
    std::atomic<uint64_t> packets{0};

  private:
    std::thread thread{[this] {
        const std::string packet(1000, 'p');
        while (!end) {
            diag_dci_copy_to_buffer(DIAG_TYPE_LOG, reinterpret_cast<const uint8_t*>(packet.data()),
                                    1000);
            ++packets;
        }
    }};
};

TEST_F(DiagBuffers, ShutLetsAWaitingProducerGoAndFreesNothingUnderIt) {
    for (int i = 0; i < 50; ++i) {
        producer producing;
        // 144 packets a buffer, the last of them dropped; then it waits for room.
        while (producing.packets < 288) std::this_thread::yield();
        if (i % 2) {
            EXPECT_EQ(process_incoming_pkt(&campaign, 0), 0);
        }
        diag_dci_release_buffers();
        producing.join();
        put(10, 'x');  // a packet that is late
        ASSERT_EQ(diag_dci_init_buffers(), 0);
    }
}

TEST_F(DiagBuffers, ProducerThatIsAlwaysAheadDoesNotHideTheDeadlineOrTheStop) {
    platform_test_set_clock(platform_test_clock::MANUAL);
    const struct {
        const char* what;
        void (*end)(stop_flag* stop);
    } cases[] = {
        {"deadline", [](stop_flag*) { platform_test_advance_ms(10000); }},
        {"clock that is set",
         [](stop_flag*) { platform_test_set_real_ms(PLATFORM_TEST_REAL_MS + 100000); }},
        {"stop", [](stop_flag* stop) { stop_flag_raise(stop); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        diag_dci_release_buffers();
        ASSERT_EQ(diag_dci_init_buffers(), 0);
        producer producing;
        std::atomic<bool> over{false};
        std::thread consumer([&] {
            EXPECT_EQ(process_incoming_pkt(&campaign, 10), 0);
            over = true;
        });
        while (producing.packets < 2000) std::this_thread::yield();
        EXPECT_FALSE(over);
        c.end(&row.stop);
        consumer.join();
        EXPECT_EQ(written().size() % 143000, 0u) << "a buffer is not whole";
        EXPECT_GE(written().size(), 11u * 143000u);
    }
}

TEST_F(DiagBuffers, FullBufferIsHeldUntilConsentIsBack) {
    struct {
        const char* what;
        void (*set)(collector_info* r, bool given);
    } const cases[] = {
        {"the row's flag", [](collector_info* r, bool given) { r->enabled = given; }},
        // As when the directory went in this very moment. The record rolls over at every write.
        {"the dropbox alone",
         [](collector_info* r, bool given) {
             r->size = given ? INT32_MAX : 0;
             if (given) fs::create_directories(UP_DIR);
             if (!given) fs::remove_all(UP_DIR);
         }},
    };
    platform_test_set_clock(platform_test_clock::MANUAL);
    std::string expected;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        put(100000, 'a');
        put(100000, 'b');  // hands the buffer over
        expected += std::string(100000, 'a');
        c.set(&row, false);
        std::thread consumer([&] { EXPECT_EQ(process_incoming_pkt(&campaign, 10), 0); });
        ASSERT_TRUE(platform_test_wait_parked(1, EVENT_LIMIT.count()));
        EXPECT_NE(written(), expected);
        c.set(&row, true);
        platform_test_advance_ms(1000);
        EXPECT_TRUE(wait_for_change({DIR}, [&] { return written() == expected; }));
        ASSERT_TRUE(platform_test_wait_parked(1, EVENT_LIMIT.count()));
        platform_test_advance_ms(10000);
        consumer.join();
    }
}

}  // namespace
