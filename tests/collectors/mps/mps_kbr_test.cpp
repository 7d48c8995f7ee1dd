// The client of the modem's statistics service: its bytes on the way, and what it makes of answers.
#include "collectors/mps/mps_kbr.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <numeric>

#include "collectors/mps/mps_service.h"
#include "collectors/mps/mps_service_thread.h"
#include "host/kbr_message.h"
#include "mps_events/mps_events.h"
#include "support/kbr_service.h"
#include "support/log.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {
std::atomic<uint32_t> raised_events{0};
std::atomic<int> timers_started{0};
}  // namespace

// In place of the collector's own.
void mps_set_event(uint32_t event) {
    raised_events |= event;
}

namespace {

const std::string PREPARED = "10 0100 50  11 0100 02  12 0100 03";  // of every prepare request

// Bytes that tell where in a specification they stand.
owned_bytes spec_of(size_t length, uint8_t seed = 0) {
    owned_bytes spec{.length = length,
                     .bytes = unique_malloc<uint8_t>(static_cast<uint8_t*>(malloc(length + 1)))};
    for (size_t i = 0; i < length; ++i)
        spec.bytes.get()[i] = static_cast<uint8_t>(seed + i % 251 + i / 800);
    return spec;
}

std::string text_of(const owned_bytes& spec, size_t offset, size_t size) {
    const uint8_t* begin = spec.bytes.get() + offset;
    return {begin, begin + size};
}

// A logic part as it has to look.
std::string part_bytes(uint8_t number, uint8_t kind, const std::string& bytes) {
    const auto low = [](size_t value) { return static_cast<char>(value & 0xff); };
    const auto high = [](size_t value) { return static_cast<char>(value >> 8); };
    const size_t field = bytes.size() + 2;
    return hex_bytes("01 0100") + low(number) + hex_bytes("02") + low(field) + high(field) +
           low(bytes.size()) + high(bytes.size()) + bytes + hex_bytes("10 0400") + low(kind) +
           std::string(3, '\0');
}

std::string fields_of(const std::string& packet) {
    return packet.substr(7);
}

class MpsKbr : public ::testing::Test {
  protected:
    void SetUp() override {
        platform_test_set_clock(platform_test_clock::MANUAL);
        raised_events = 0;
        timers_started = 0;
        record.powerBudgetMeasIntr = 0x102;
        record.powerBudgetMaxAPWakeup = 0x10003;
        ASSERT_EQ(mps_kbr_init(), 0);
        modem.accept();
        mps_kbr_register_cb(mps_kbr_event_cb);
        mps_kbr_register_ll_delay_timer([] { return ++timers_started > 0; });
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
    int start(uint32_t subscription = 0) {
        return mps_kbr_init_mpss_bsi(&record, subscription, stop);
    }

    kbr_service modem{"vexa"};
    std::atomic<uint8_t> refuse_id{0};
    stop_flag stop;
    MpsCampaign record;
};

TEST(MpsService, LargestRequestsAndEveryStructureAreAsTheServiceHasThem) {
    EXPECT_EQ(vexa_get_service_object_internal_v01(1, 2, 6), nullptr);
    const kbr_service_object* service = vexa_get_service_object_internal_v01(1, 1, 6);
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(service->service_id, 75u);
    EXPECT_EQ(service->requests.size(), 8u);
    EXPECT_EQ(service->responses.size(), 8u);
    EXPECT_EQ(service->indications.size(), 2u);
    const std::pair<uint32_t, size_t> sizes[] = {{2, 839}, {3, 816}};
    for (const auto& [id, size] : sizes)
        EXPECT_EQ(kbr_message_max_len(*kbr_find_message(*service, KBR_REQUEST, id)), size) << id;
    EXPECT_EQ(service->max_message_len, 839u);
    for (const kbr_message& response : service->responses) EXPECT_EQ(response.struct_size, 16);
}

TEST_F(MpsKbr, EveryRequestIsItsBytes) {
    mps_service_revision revision;
    (void)mps_kbr_get_service_rev(&revision.major, &revision.minor);
    EXPECT_EQ(start(), 0);
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
    const std::string head = "01 0100 00" + PREPARED;
    const std::string full(800, '\x07');
    struct {
        const char* what;
        size_t static_length;
        uint32_t subscription, field6;
        std::string fields;
    } const cases[] = {
        {"none", 0, 0, 0, hex_bytes(head)},
        {"a static specification", 2, 0, 0, hex_bytes(head + "14 0400 0200 0707")},
        {"the longest one", 800, 0, 0, hex_bytes(head + "14 2203 2003") + full},
        {"subscription 1", 0, 1, 0, hex_bytes(head + "15 0400 00000000")},
        {"the last subscription", 0, 0xffffffff, 0, hex_bytes(head + "15 0400 feffffff")},
        {"field 6", 0, 0, 0x01020304, hex_bytes(head + "16 0400 04030201")},
        {"all", 1, 2, 1, hex_bytes(head + "14 0300 0100 07 15 0400 01000000 16 0400 01000000")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        record.static_spec = spec_of(c.static_length);
        memset(record.static_spec.bytes.get(), 7, c.static_length);
        record.specField6 = c.field6;
        EXPECT_EQ(mps_kbr_send_start_prepare_req(&record, 256, c.subscription), 0);
        const std::vector<std::string> requests = modem.take_requests();
        ASSERT_EQ(requests.size(), 1u);
        EXPECT_EQ(fields_of(requests[0]), c.fields);
    }
    record.static_spec = spec_of(801);
    EXPECT_EQ(start(), -EINVAL);
    EXPECT_TRUE(modem.take_requests().empty());
    EXPECT_EQ(platform_test_log_count(
                  "mps_kbr_send_start_prepare_req: Failed to send Collection Start Prep Msg. "
                  "err = -22"),
              1u);
}

TEST_F(MpsKbr, PartsAreNumberedAcrossTheKinds) {
    record.collection_spec = spec_of(800);
    record.ctxt_spec = spec_of(801, 50);
    record.lll_spec = spec_of(1601, 100);
    record.lllDelaySecs = 33;
    EXPECT_EQ(start(), 0);
    const std::vector<std::string> requests = modem.take_requests();
    ASSERT_EQ(requests.size(), 8u);
    EXPECT_EQ(fields_of(requests[0]).substr(0, 4), hex_bytes("01 0100 06"));
    const std::string parts[] = {
        part_bytes(0, 1, text_of(record.collection_spec, 0, 800)),
        part_bytes(1, 2, text_of(record.ctxt_spec, 0, 800)),
        part_bytes(2, 2, text_of(record.ctxt_spec, 800, 1)),
        part_bytes(3, 3, text_of(record.lll_spec, 0, 800)),
        part_bytes(4, 3, text_of(record.lll_spec, 800, 800)),
        part_bytes(5, 3, text_of(record.lll_spec, 1600, 1)),
    };
    for (size_t i = 0; i < std::size(parts); ++i) EXPECT_EQ(fields_of(requests[i + 1]), parts[i]);
    EXPECT_EQ(mps_kbr_get_lll_delayt_timer_secs(), 33u);
    EXPECT_THAT(log_text(),
                HasSubstr("mps_kbr_init_mpss_bsi: Part Number = 6 MEMSET"
                          "mps_kbr_init_mpss_bsi: Sent Collection Logic Part 0, Type 1, Bytes Left "
                          "0mps_kbr_init_mpss_bsi: Sent Collection Logic Part 1, Type 2, Bytes "
                          "Left 1"));
}

TEST_F(MpsKbr, NumbersAndCollectionOffsetsStartAgainAt256) {
    record.collection_spec = spec_of(257 * 800 + 5);
    record.ctxt_spec = spec_of(3, 9);
    EXPECT_EQ(start(), 0);
    const std::vector<std::string> requests = modem.take_requests();
    ASSERT_EQ(requests.size(), 1 + 259 + 1u);
    EXPECT_EQ(fields_of(requests[0]).substr(0, 4), hex_bytes("01 0100 03"));
    const owned_bytes& spec = record.collection_spec;
    EXPECT_EQ(fields_of(requests[256]), part_bytes(255, 1, text_of(spec, 255 * 800, 800)));
    EXPECT_EQ(fields_of(requests[257]), part_bytes(0, 1, text_of(spec, 0, 800)));
    EXPECT_EQ(fields_of(requests[258]), part_bytes(1, 1, text_of(spec, 800, 5)));
    EXPECT_EQ(fields_of(requests[259]), part_bytes(2, 2, text_of(record.ctxt_spec, 0, 3)));
}

TEST_F(MpsKbr, SpecificationsWithoutBytesAndNullArgumentsAreRefused) {
    const std::pair<owned_bytes MpsCampaign::*, const char*> specs[] = {
        {&MpsCampaign::collection_spec, "clspec_buf"},
        {&MpsCampaign::static_spec, "stspec_buf"},
        {&MpsCampaign::ctxt_spec, "clctxt_buf"},
        {&MpsCampaign::lll_spec, "lll_buf"},
    };
    for (const auto& [spec, name] : specs) {
        MpsCampaign bad;
        (bad.*spec).length = 1;
        EXPECT_EQ(mps_kbr_init_mpss_bsi(&bad, 0, stop), -1);
        EXPECT_EQ(platform_test_log_count("Unexpected Null " + std::string(name) +
                                          " pointer passed to mps_kbr_init_mpss_bsi"),
                  1u);
    }
    EXPECT_EQ(mps_kbr_init_mpss_bsi(nullptr, 0, stop), -1);
    EXPECT_EQ(mps_kbr_send_start_prepare_req(nullptr, 0, 0), -1);
    uint32_t major = 0;
    EXPECT_EQ(mps_kbr_get_service_rev(&major, nullptr), -1);
    EXPECT_THAT(log_text(), HasSubstr("Null pointer passed to mps_kbr_init_mpss_bsi"
                                      "Null pointer passed to mps_kbr_send_start_prepare_req"
                                      "Null pointers passed"));
    EXPECT_TRUE(modem.take_requests().empty());
}

TEST_F(MpsKbr, RefusedRequestEndsTheStartSequence) {
    record.collection_spec = spec_of(1600);
    struct {
        uint8_t id;
        size_t requests;
        const char* log;
    } const cases[] = {
        {2, 1,
         "mps_kbr_send_start_prepare_req: Failed to send Collection Start Prep Msg. err = -2"},
        {3, 2, "mps_kbr_init_mpss_bsi: Failed to send Collection Logic Part 0. err = -2"},
        {4, 4, "mps_kbr_send_start_req: Failed to send Collection Start err = -2"},
    };
    for (const auto& c : cases) {
        refuse_id = c.id;
        EXPECT_EQ(start(), KBR_ERR_REFUSED);
        EXPECT_EQ(modem.take_requests().size(), c.requests);
        EXPECT_EQ(platform_test_log_count(c.log), 1u) << log_text();
    }
}

TEST_F(MpsKbr, LllRequestsGoOutOnlyWhileACollectionWithLllRuns) {
    const auto requests_sent = [&] {
        EXPECT_TRUE(mps_kbr_send_lll_stop_req());
        EXPECT_TRUE(mps_kbr_send_lll_start_req());
        std::string ids;
        for (const std::string& request : modem.take_requests()) ids += request.substr(3);
        return ids;
    };
    const auto start_with_lll = [&](size_t length) {
        record.lll_spec = spec_of(length);
        EXPECT_EQ(start(), 0);
        modem.take_requests();
    };
    EXPECT_EQ(requests_sent(), "");
    start_with_lll(1);
    EXPECT_EQ(requests_sent(), hex_bytes("0900 0000 0a00 0000"));
    EXPECT_EQ(timers_started, 1);
    start_with_lll(0);
    EXPECT_EQ(requests_sent(), "");
    start_with_lll(1);
    refuse_id = 5;
    EXPECT_EQ(mps_kbr_stop_flush_bsi(), KBR_ERR_REFUSED);
    modem.take_requests();
    EXPECT_NE(requests_sent(), "") << "a refused stop leaves the collection running";
    EXPECT_EQ(timers_started, 2);
    refuse_id = 9;
    EXPECT_FALSE(mps_kbr_send_lll_stop_req());
    EXPECT_EQ(timers_started, 2) << "armed by success only";
    refuse_id = 0;
    EXPECT_EQ(mps_kbr_stop_flush_bsi(), 0);
    modem.take_requests();
    EXPECT_EQ(requests_sent(), "");
}

TEST_F(MpsKbr, StopIsLookedAtBetweenParts) {
    record.collection_spec = spec_of(800 * 5);
    modem.hang_up();
    mps_kbr_client_release();
    ASSERT_EQ(mps_kbr_init(), 0);
    modem.accept();
    modem.answer([this](const std::string& request) {
        if (request[3] == 3 && request[10] == 1) stop_flag_raise(&stop);
        return response_to(request);
    });
    EXPECT_EQ(start(), -EINTR);
    EXPECT_EQ(modem.take_requests().size(), 3u);
}

TEST_F(MpsKbr, IndicationsRaiseTheirEventsWhenTheyAreWhole) {
    struct {
        uint8_t id;
        const char* fields;
        uint32_t event;
        const char* log;
    } const cases[] = {
        {6, "01 0400 07000000", MPS_EVENT_BUFFER_FULL, "KBR_VEXA_BUFFER_FULL_IND_V01: type = 7\n"},
        {8, "01 0400 01000000 02 0400 02000000", MPS_EVENT_SEND_COMPLETE,
         "KBR_VEXA_SEND_DATA_COMPLETE_IND_V01\n"},
        {8, "01 0400 01000000 02 0400 02000000 10 0400 03000000", MPS_EVENT_SEND_COMPLETE,
         "KBR_VEXA_SEND_DATA_COMPLETE_IND_V01\n"},
        {6, "", 0, ""},
        {8, "01 0400 01000000", 0, ""},
        {7, "", 0, "mps_kbr_ind_cb: unknown msg_id: 7\n"},
    };
    for (const auto& c : cases) {
        platform_test_clear_log();
        raised_events = 0;
        const std::string fields = hex_bytes(c.fields);
        modem.send(hex_bytes("02 0000") + static_cast<char>(c.id) + std::string(1, '\0') +
                   static_cast<char>(fields.size()) + std::string(1, '\0') + fields);
        // The one that follows shows that this one was handled.
        modem.send(hex_bytes("02 0000 6300 0000"));
        ASSERT_TRUE(
            platform_test_wait_log("mps_kbr_ind_cb: unknown msg_id: 99\n", EVENT_LIMIT.count()));
        EXPECT_EQ(raised_events, c.event);
        EXPECT_EQ(log_text(), std::string(c.log) + "mps_kbr_ind_cb: unknown msg_id: 99\n");
    }
}

TEST_F(MpsKbr, ServiceThreadReportsReadinessOnceTheRevisionIsKnown) {
    const auto run_handler = [&](const std::string& response) {
        modem.hang_up();
        mps_kbr_client_release();
        platform_test_clear_log();
        std::thread handler(kbr_handler, nullptr);
        modem.accept();
        modem.answer([response](const std::string& request) {
            return response_to(request, hex_bytes(response));
        });
        handler.join();
    };
    run_handler("02 0400 0100 0300");
    EXPECT_EQ(raised_events, 0u);
    EXPECT_EQ(log_text(),
              "mps_kbr_get_service_rev: failed to get service revision. err=-2"
              "kbr_handler: failed to get revision. err:-2");
    run_handler("02 0400 0000 0000 10 0200 0100 11 0200 0201");
    EXPECT_EQ(raised_events, uint32_t{MPS_EVENT_KBR_READY});
    EXPECT_EQ(log_text(), "major version: 1. minor version: 258\n");
    EXPECT_EQ(mps_kbr_service_revision().minor, 258u);
}

TEST(MpsKbrWithoutAModem, FailedConnectionIsInitialisedAndSendsNothing) {
    EXPECT_EQ(mps_kbr_get_service_rev(nullptr, nullptr), -1);
    mps_kbr_client_release();
    EXPECT_EQ(platform_test_log_count("VEXA KBR Instance Un-Initialized"), 2u);
    platform_test_clear_log();
    kbr_handler(nullptr);
    EXPECT_EQ(log_text(),
              "mps_kbr_init: failed to init kbr. err:-5kbr_handler: failed to init kbr. err:-5");
    platform_test_clear_log();
    MpsCampaign record;
    const stop_flag stop;
    EXPECT_EQ(mps_kbr_init_mpss_bsi(&record, 0, stop), KBR_ERR_GONE);
    EXPECT_EQ(mps_kbr_stop_flush_bsi(), KBR_ERR_GONE);
    EXPECT_EQ(mps_kbr_fetch_results(), KBR_ERR_GONE);
    mps_kbr_client_release();
    EXPECT_THAT(log_text(), HasSubstr("mps_kbr_stop_flush_bsi: Failed to send STOPFlush err = -5"
                                      "mps_kbr_fetch_results: Failed to send DATA_REQ err = -5"));
}

}  // namespace
