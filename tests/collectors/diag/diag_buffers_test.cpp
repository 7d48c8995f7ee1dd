// The hand-over between the library's thread and the collector's, into a real record.
#include "collectors/diag/diag_buffers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "collectors/diag/diag_campaign.h"
#include "support/collector_phone.h"

namespace {

constexpr int SIZE = DIAG_BUFFER_SIZE;

struct DiagBuffers : testing::Test, collector_phone {
    DiagBuffers() : collector_phone(4) { begin(); }
    ~DiagBuffers() override { end(); }
    void begin() {
        record_init_req req{.row = row.get(), .dir = dir.c_str(), .prefix = "diagstats.tmp"};
        campaign.record.file = vexastats_record_init(&req);
        if (diag_dci_init_buffers() != 0) throw std::bad_alloc();
    }
    void end() {
        diag_dci_release_buffers();
        vexastats_record_close(&campaign.record);
        remove(own());
    }

    static void put(int size, char fill, int type = DIAG_TYPE_LOG) {
        const std::string packet(static_cast<size_t>(size), fill);
        diag_dci_copy_to_buffer(type, reinterpret_cast<const uint8_t*>(packet.data()), size);
    }
    const std::string dir = own();
    timed_campaign campaign{.kind = &DIAG_CAMPAIGN, .row = row.get()};
};

TEST_F(DiagBuffers, OnlyFullBuffersAreWrittenAndThePacketThatDidNotFitIsDropped) {
    const struct {
        int packets[3];
        int type;
        std::string written;
    } cases[] = {
        // One byte of room stays free; what is exactly full is full; what is not is not written.
        {{SIZE - 11, 10, 1}, DIAG_TYPE_LOG, std::string(SIZE - 11, '0') + std::string(10, '1')},
        {{SIZE - 10, 10, 1}, DIAG_TYPE_LOG, std::string(SIZE - 10, '0')},
        {{SIZE - 11, 10, 0}, DIAG_TYPE_LOG, ""},
        // Larger than a buffer, and the largest.
        {{SIZE, 10, 1}, DIAG_TYPE_LOG, ""},
        {{INT32_MAX, 10, 1}, DIAG_TYPE_PREFIXED, ""},
        // The prefix takes room.
        {{SIZE - 12, 9, 1},
         DIAG_TYPE_PREFIXED,
         "`" + std::string(SIZE - 12, '0') + "`" + std::string(9, '1')},
    };
    for (const auto& c : cases) {
        end();
        begin();
        std::string filler(SIZE, '0');
        diag_dci_copy_to_buffer(c.type, reinterpret_cast<const uint8_t*>(filler.data()),
                                c.packets[0]);
        put(c.packets[1], '1', c.type);
        if (c.packets[2] > 0) put(c.packets[2], '2', c.type);
        EXPECT_EQ(process_incoming_pkt(&campaign, 0), 0);
        EXPECT_TRUE(record() == c.written) << record().size();
    }
}

TEST_F(DiagBuffers, AllThatIsFullAtTheEndIsStillWritten) {
    for (const char fill : {'a', 'b'})
        for (int i = 0; i < 2; ++i) put(100000, fill);  // the second one hands it over
    EXPECT_EQ(process_incoming_pkt(&campaign, 0), 0);
    EXPECT_TRUE(record() == std::string(100000, 'a') + std::string(100000, 'b'));
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
        put(10, 'x');  // a packet that is late
        producing.join();
        ASSERT_EQ(diag_dci_init_buffers(), 0);
    }
}

TEST_F(DiagBuffers, ProducerThatIsAlwaysAheadDoesNotHideTheDeadlineOrTheStop) {
    platform_test_set_clock(platform_test_clock::MANUAL);
    const std::function<void()> ends[] = {
        [] { platform_test_advance_ms(10000); },
        [] { platform_test_set_real_ms(PLATFORM_TEST_REAL_MS + 100000); },
        [this] { stop_flag_raise(&row->stop); },
    };
    for (const auto& the_end : ends) {
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
        the_end();
        consumer.join();
        EXPECT_EQ(record().size() % 143000, 0u) << "a buffer is not whole";
        EXPECT_GE(record().size(), 11u * 143000u);
    }
}

TEST_F(DiagBuffers, FullBufferIsHeldUntilConsentIsBack) {
    platform_test_set_clock(platform_test_clock::MANUAL);
    std::string expected;
    for (const bool is_noticed : {true, false}) {
        // As when the directory went in this very moment. The record rolls over at every write.
        const auto consent = [&](bool given) {
            row->size = given ? INT32_MAX : 0;
            if (is_noticed) return given ? opt_in() : opt_out();
            given ? put_files({{row->up_dir + std::string("/")}}) : remove(row->up_dir);
        };
        row->size = INT32_MAX;
        put(100000, 'a');
        put(100000, 'b');  // hands the buffer over
        expected += std::string(100000, 'a');
        consent(false);
        std::thread consumer([&] { EXPECT_EQ(process_incoming_pkt(&campaign, 10), 0); });
        ASSERT_TRUE(platform_test_wait_parked(1, EVENT_LIMIT.count()));
        EXPECT_NE(record(), expected);
        consent(true);
        platform_test_advance_ms(1000);
        EXPECT_TRUE(wait_for_change({own()}, [&] { return record() == expected; }));
        ASSERT_TRUE(platform_test_wait_parked(1, EVENT_LIMIT.count()));
        platform_test_advance_ms(10000);
        consumer.join();
    }
}

}  // namespace
