// The client of the modem's statistics service: its bytes on the way, and what it makes of answers.
#include "collectors/mps/mps_kbr.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "collectors/mps/mps_service.h"
#include "collectors/mps/mps_service_thread.h"
#include "host/kbr_message.h"
#include "mps_events/mps_events.h"
#include "support/kbr_service.h"
#include "support/log.h"

using ::testing::EndsWith;
using ::testing::HasSubstr;

namespace {
std::atomic<uint32_t> raised_events{0};
}  // namespace

// In place of the collector's own.
void mps_set_event(uint32_t event) {
    raised_events |= event;
}

namespace {

const std::string PREPARED = "10 0100 50  11 0100 02  12 0100 03";  // of every prepare request

std::string text_of(const owned_bytes& spec, size_t offset, size_t size) {
    const uint8_t* begin = spec.bytes.get() + offset;
    return {begin, begin + size};
}

// A logic part as it has to look.
std::string part_bytes(uint8_t number, uint8_t kind, const std::string& bytes) {
    const auto u16 = [](size_t value) {
        return std::string{static_cast<char>(value), static_cast<char>(value >> 8)};
    };
    return hex_bytes("01 0100") + static_cast<char>(number) + "\x02" + u16(bytes.size() + 2) +
           u16(bytes.size()) + bytes + hex_bytes("10 0400") + u16(kind) + u16(0);
}

class MpsKbr : public ::testing::Test {
  protected:
    void SetUp() override {
        platform_test_set_clock(platform_test_clock::MANUAL);
        raised_events = 0;
        record.powerBudgetMeasIntr = 0x102;
        record.powerBudgetMaxAPWakeup = 0x10003;
        ASSERT_EQ(mps_kbr_init(stop), modem_result::OK);
        modem.accept();
        mps_kbr_register_cb(mps_kbr_event_cb);
        modem.answer([this](const std::string& request) {
            const bool refused = static_cast<uint8_t>(request[3]) == refuse_id.load();
            return response_to(request,
                               hex_bytes(refused ? "02 0400 0100 0300" : "02 0400 0000 0000"));
        });
    }
    void TearDown() override {
        refuse_id = 0;
        (void)mps_kbr_stop_flush_bsi();
        mps_kbr_client_release();
        mps_kbr_register_cb(nullptr);
    }
    modem_result start() { return mps_kbr_init_mpss_bsi(&record, 0, stop); }
    void reconnect(std::function<std::string(const std::string&)> respond) {
        modem.hang_up();
        mps_kbr_client_release();
        platform_test_clear_log();
        std::thread handler(kbr_handler, &stop);
        modem.accept();
        modem.answer(std::move(respond));
        handler.join();
        modem.take_requests();
    }

    kbr_service modem{"vexa"};
    std::atomic<uint8_t> refuse_id{0};
    stop_flag stop;
    MpsCampaign record;
};

TEST(MpsService, LargestRequestsAreAsTheServiceHasThem) {
    EXPECT_EQ(vexa_get_service_object_internal_v01(1, 2, 6), nullptr);
    const kbr_service_object& service = *vexa_get_service_object_internal_v01(1, 1, 6);
    EXPECT_EQ(kbr_message_max_len(*kbr_find_message(service, KBR_REQUEST, 2)), 839u);
    EXPECT_EQ(kbr_message_max_len(*kbr_find_message(service, KBR_REQUEST, 3)), 816u);
}

TEST_F(MpsKbr, EveryRequestIsItsBytes) {
    mps_service_revision revision;
    (void)mps_kbr_get_service_rev(&revision.major, &revision.minor);
    EXPECT_EQ(start(), modem_result::OK);
    (void)mps_kbr_fetch_results();
    (void)mps_kbr_fetch_results();
    (void)mps_kbr_stop_flush_bsi();
    const std::vector<std::string> requests = modem.take_requests();
    const std::string expected[] = {"01 00 0000",
                                    "02 00 1000 01 0100 00" + PREPARED,
                                    "04 00 0000",
                                    "07 00 0e00 01 0400 00000000 02 0400 01000000",
                                    "07 00 0e00 01 0400 00000000 02 0400 02000000",
                                    "05 00 0400 10 0100 01"};
    ASSERT_EQ(requests.size(), std::size(expected));
    for (size_t i = 0; i < requests.size(); ++i) {
        EXPECT_EQ(requests[i][0], '\0');
        EXPECT_EQ(requests[i].substr(3), hex_bytes(expected[i])) << i;
    }
}

TEST_F(MpsKbr, OptionalFieldsOfThePrepareRequestAreThereWhenStated) {
    const std::tuple<size_t, uint32_t, uint32_t, std::string> cases[] = {
        {0, 0, 0, ""},
        {2, 0, 0, hex_bytes("14 0400 0200 0707")},
        {800, 0, 0, hex_bytes("14 2203 2003") + std::string(800, 7)},
        {0, 1, 0, hex_bytes("15 0400 00000000")},
        {0, 0xffffffff, 0, hex_bytes("15 0400 feffffff")},
        {0, 0, 0x01020304, hex_bytes("16 0400 04030201")},
        {1, 2, 1, hex_bytes("14 0300 0100 07 15 0400 01000000 16 0400 01000000")},
    };
    for (const auto& [static_length, subscription, field6, fields] : cases) {
        record.static_spec = spec_of(static_length);
        memset(record.static_spec.bytes.get(), 7, static_length);
        record.specField6 = field6;
        EXPECT_EQ(mps_kbr_send_start_prepare_req(&record, 256, subscription), modem_result::OK);
        const std::string request = modem.take_requests().at(0);
        EXPECT_EQ(request.substr(7), hex_bytes("01 0100 00" + PREPARED) + fields);
    }
    record.static_spec = spec_of(801);
    EXPECT_EQ(modem_result_number(start()), -EINVAL);
    EXPECT_TRUE(modem.take_requests().empty());
}

TEST_F(MpsKbr, PartsAreNumberedAcrossTheKindsAndRepeatFrom256On) {
    record.collection_spec = spec_of(257 * 800);
    record.ctxt_spec = spec_of(801, 50);
    record.lll_spec = spec_of(1600, 100);
    record.lllDelaySecs = 33;
    EXPECT_EQ(start(), modem_result::OK);
    const std::vector<std::string> requests = modem.take_requests();
    ASSERT_EQ(requests.size(), 1 + 257 + 2 + 2 + 1u);
    EXPECT_EQ(requests[0].substr(7, 4), hex_bytes("01 0100 05"));
    const std::tuple<size_t, uint8_t, const owned_bytes&, size_t, size_t> cases[] = {
        {255, 1, record.collection_spec, 255 * 800, 800},
        {256, 1, record.collection_spec, 0, 800},
        {257, 2, record.ctxt_spec, 0, 800},
        {258, 2, record.ctxt_spec, 800, 1},
        {260, 3, record.lll_spec, 800, 800}};
    for (const auto& [part, kind, spec, offset, size] : cases) {
        const auto number = static_cast<uint8_t>(part);
        EXPECT_EQ(requests[part + 1].substr(7),
                  part_bytes(number, kind, text_of(spec, offset, size)));
    }
    EXPECT_EQ(mps_kbr_get_lll_delayt_timer_secs(), 33u);
    EXPECT_THAT(log_text(), HasSubstr("mps_kbr_init_mpss_bsi: Sent Collection Logic Part 257, "
                                      "Type 2, Bytes Left 1"));
}

TEST_F(MpsKbr, SpecsWithoutBytesAreRefused) {
    for (owned_bytes MpsCampaign::*spec : {&MpsCampaign::collection_spec, &MpsCampaign::static_spec,
                                           &MpsCampaign::ctxt_spec, &MpsCampaign::lll_spec}) {
        MpsCampaign bad;
        (bad.*spec).length = 1;
        EXPECT_EQ(modem_result_number(mps_kbr_init_mpss_bsi(&bad, 0, stop)), -1);
    }
    EXPECT_EQ(modem_result_number(mps_kbr_init_mpss_bsi(nullptr, 0, stop)), -1);
    EXPECT_THAT(log_text(),
                HasSubstr("Unexpected Null clctxt_buf pointer passed to mps_kbr_init_mpss_bsi"
                          "Unexpected Null lll_buf pointer passed to mps_kbr_init_mpss_bsi"
                          "Null pointer passed to mps_kbr_init_mpss_bsi"));
}

TEST_F(MpsKbr, RefusedRequestEndsTheStartSequence) {
    record.collection_spec = spec_of(1600);
    const std::pair<uint8_t, size_t> cases[] = {{2, 1}, {3, 2}, {4, 4}};
    for (const auto& [id, requests] : cases) {
        refuse_id = id;
        EXPECT_EQ(start(), modem_result::REFUSED);
        EXPECT_EQ(modem.take_requests().size(), requests);
    }
    EXPECT_THAT(log_text(),
                EndsWith("mps_kbr_send_start_req: Failed to send Collection Start err = -2"));
}

TEST_F(MpsKbr, LllRequestsGoOutOnlyWhileACollectionWithLllRuns) {
    const auto requests_sent = [&] {
        modem.take_requests();
        EXPECT_TRUE(mps_kbr_send_lll_stop_req());
        EXPECT_TRUE(mps_kbr_send_lll_start_req());
        std::string ids;
        for (const std::string& request : modem.take_requests()) ids += request.substr(3);
        return ids;
    };
    const std::string both = hex_bytes("0900 0000 0a00 0000");
    EXPECT_EQ(requests_sent(), "");
    for (const size_t length : {1, 0, 1}) {
        record.lll_spec = spec_of(length);
        EXPECT_EQ(start(), modem_result::OK);
        EXPECT_EQ(requests_sent(), length > 0 ? both : "");
    }
    refuse_id = 5;
    EXPECT_EQ(mps_kbr_stop_flush_bsi(), modem_result::REFUSED);
    EXPECT_EQ(requests_sent(), both) << "a refused stop leaves the collection running";
    refuse_id = 9;
    EXPECT_FALSE(mps_kbr_send_lll_stop_req());
    refuse_id = 0;
    EXPECT_EQ(mps_kbr_stop_flush_bsi(), modem_result::OK);
    EXPECT_EQ(requests_sent(), "");
}

TEST_F(MpsKbr, StopIsLookedAtBetweenParts) {
    record.collection_spec = spec_of(800 * 5);
    reconnect([this](const std::string& request) {
        if (request[3] == 3 && request[10] == 1) stop_flag_raise(&stop);
        return response_to(request);
    });
    EXPECT_EQ(modem_result_number(start()), -EINTR);
    EXPECT_EQ(modem.take_requests().size(), 3u);
}

// A modem that never answers, and one that never accepts.
TEST_F(MpsKbr, StopEndsARequestAndConnectingAtOnceAndLaterCallsAreRefused) {
    using steady = std::chrono::steady_clock;
    reconnect([](const std::string& request) {
        return request[3] == MPS_GET_SERVICE_REVISION ? response_to(request) : "silence";
    });
    const auto stopped = [&](const char* what, const std::function<modem_result()>& call) {
        ASSERT_EQ(stop_flag_open(&stop), 0);
        std::atomic<bool> over{false};
        std::thread caller([&] {
            EXPECT_NE(call(), modem_result::OK);
            over = true;
        });
        EXPECT_TRUE(platform_test_wait_parked(2, EVENT_LIMIT.count()));
        EXPECT_FALSE(over);
        const auto begin = steady::now();
        stop_flag_raise(&stop);
        caller.join();
        const std::chrono::duration<double, std::milli> taken = steady::now() - begin;
        printf("%s: %.2f ms\n", what, taken.count());
        EXPECT_LT(taken, EVENT_LIMIT / 2);  // the clock stands still: no time-out ends it
        modem.take_requests();
        EXPECT_NE(mps_kbr_fetch_results(), modem_result::OK);
        EXPECT_TRUE(modem.take_requests().empty());
        mps_kbr_client_release();
        modem.hang_up();
        stop.raised = 0;
        close(stop.fd.exchange(-1));
    };
    stopped("a request", mps_kbr_fetch_results);
    std::vector<unique_fd> queue;  // which is full then
    while (queue.empty() || queue.back()) queue.push_back(modem.connect_another());
    stopped("connecting", [this] { return mps_kbr_init(stop); });
    // What comes of that connection is released unseen.
    const size_t waiting = queue.size() - 1;
    for (size_t i = 0; i < waiting; ++i) modem.accept();
    platform_test_advance_ms(1000);
    modem.accept();
    EXPECT_EQ(modem.receive(), "");
    EXPECT_EQ(mps_kbr_fetch_results(), modem_result::GONE);
    modem.hang_up();
}

TEST_F(MpsKbr, IndicationsRaiseTheirEventsWhenTheyAreWhole) {
    const std::tuple<std::string, uint32_t, std::string> cases[] = {
        {"06 00 0700 01 0400 07000000", 2, "KBR_VEXA_BUFFER_FULL_IND_V01: type = 7\n"},
        {"08 00 0e00 01 0400 01000000 02 0400 02000000", 32,
         "KBR_VEXA_SEND_DATA_COMPLETE_IND_V01\n"},
        {"06 00 0000", 0, ""},
        {"08 00 0700 01 0400 01000000", 0, ""},
    };
    for (const auto& [packet, event, log] : cases) {
        platform_test_clear_log();
        raised_events = 0;
        modem.send(hex_bytes("02 0000" + packet));
        // The one that follows shows that this one was handled.
        const std::string unknown = "mps_kbr_ind_cb: unknown msg_id: 99\n";
        modem.send(hex_bytes("02 0000 6300 0000"));
        ASSERT_TRUE(platform_test_wait_log(unknown, EVENT_LIMIT.count()));
        EXPECT_EQ(raised_events, event);
        EXPECT_EQ(log_text(), log + unknown);
    }
}

TEST_F(MpsKbr, ServiceThreadReportsReadinessOnceTheRevisionIsKnown) {
    reconnect([](const std::string& request) {
        return response_to(request, hex_bytes("02 0400 0100 0300"));
    });
    EXPECT_EQ(raised_events, 0u);
    EXPECT_EQ(log_text(),
              "mps_kbr_get_service_rev: failed to get service revision. err=-2"
              "kbr_handler: failed to get revision. err:-2");
    reconnect([](const std::string& request) {
        return response_to(request, hex_bytes("02 0400 0000 0000 10 0200 0100 11 0200 0201"));
    });
    EXPECT_EQ(raised_events, uint32_t{MPS_EVENT_KBR_READY});
    EXPECT_EQ(log_text(), "major version: 1. minor version: 258\n");
    EXPECT_EQ(mps_kbr_service_revision().minor, 258u);
}

}  // namespace
