// The client of the modem's statistics service: what it makes of a campaign's bytes, its own bytes
// on the way, what it makes of answers, and its stop. Texts and times stand in
// tests/transcripts/mps_*.
#include "collectors/mps/mps_kbr.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "collectors/mps/mps_service.h"
#include "host/kbr_message.h"
#include "mps_events/mps_events.h"
#include "platform/log.h"
#include "support/dialogue.h"
#include "support/gzip.h"
#include "support/kbr_service.h"
#include "support/log.h"
#include "support/owned_text.h"

namespace {

using words = std::vector<std::string>;

// Bytes in hex; of many the first, the last and how many.
std::string short_hex(const std::string& bytes) {
    if (bytes.size() <= 48) return " " + hex(bytes);
    const std::string begin = hex(bytes.substr(0, 32)), end = hex(bytes.substr(bytes.size() - 12));
    return " " + begin + " .. " + end + ", " + std::to_string(bytes.size()) + " bytes";
}

std::string text_of(const MpsCampaign& c) {
    std::string all;
    for (const uint32_t number :
         {c.bsiBufferFetchIntSec, c.powerBudgetMeasIntr, c.powerBudgetMaxAPWakeup, c.specField6,
          c.lllDelaySecs, c.configField6})
        all += std::to_string(number) + " ";
    for (const auto* spec : {&c.collection_spec, &c.static_spec, &c.ctxt_spec, &c.lll_spec})
        all += "|" + short_hex(text(*spec));
    return all;
}

struct MpsKbr : testing::Test {
    MpsKbr() {
        platform_test_set_clock(platform_test_clock::MANUAL);
        mps_clear_event(UINT32_MAX);
        EXPECT_EQ(stop_flag_open(&stop), 0);
        connect();
    }
    ~MpsKbr() override {
        release();
        mps_kbr_register_cb(nullptr);
    }
    void connect() {
        EXPECT_EQ(mps_kbr_init(stop), modem_result::OK);
        mps_kbr_register_cb(mps_set_event);
        modem.accept();
        modem.answer([this](const std::string& request) {
            if (request[3] == 3 && request[10] == stop_at) stop_flag_raise(&between);
            if (request[3] == silent_to) return std::string("silence");
            return response_to(request,
                               bytes(request[3] == refused ? "02 0400 0100 0300" : fields));
        });
    }
    void release() {
        mps_kbr_client_release();
        modem.hang_up();
        modem.take_requests();
    }
    void fill(const words& line) {
        record = {.bsiBufferFetchIntSec = 0,
                  .powerBudgetMeasIntr = 0x102,
                  .powerBudgetMaxAPWakeup = 0x10003};
        for (size_t i = 1; i + 1 < line.size(); i += 2) {
            const auto number = static_cast<uint32_t>(std::stoul(line[i + 1]));
            owned_bytes* spec = line[i] == "static"       ? &record.static_spec
                                : line[i] == "context"    ? &record.ctxt_spec
                                : line[i] == "lll"        ? &record.lll_spec
                                : line[i] == "collection" ? &record.collection_spec
                                                          : nullptr;
            if (spec) *spec = spec_of(number, static_cast<uint8_t>(i));
            if (spec && line[0] == "nothing") spec->bytes.reset();
            if (line[i] == "delay") record.lllDelaySecs = number;
            if (line[i] == "field6") record.specField6 = number;
        }
    }
    std::string ask(const words& line) {
        uint32_t major = 0, minor = 0;
        const auto number = [&](size_t i) { return static_cast<uint32_t>(std::stoul(line.at(i))); };
        std::string more;
        modem_result result = modem_result::OK;
        const auto done = [&](bool good) {
            return good ? modem_result::OK : modem_result::REFUSED;
        };
        const MpsCampaign* campaign = line.back() == "null" ? nullptr : &record;
        if (line[0] == "start") result = mps_kbr_init_mpss_bsi(campaign, number(1), stop);
        if (line[0] == "prepare")
            result = mps_kbr_send_start_prepare_req(campaign, number(1), number(2));
        if (line[0] == "flush") result = mps_kbr_stop_flush_bsi();
        if (line[0] == "fetch") result = mps_kbr_fetch_results();
        if (line[0] == "pause") result = done(mps_kbr_send_lll_stop_req());
        if (line[0] == "resume") result = done(mps_kbr_send_lll_start_req());
        if (line[0] == "delay") more = " " + std::to_string(mps_kbr_get_lll_delayt_timer_secs());
        if (line[0] == "revision") {
            result = mps_kbr_get_service_rev(line.back() == "major" ? nullptr : &major,
                                             line.back() == "minor" ? nullptr : &minor);
            more = " " + std::to_string(mps_kbr_service_revision().major) + "." +
                   std::to_string(minor);
        }
        std::string text = std::to_string(modem_result_number(result)) + more + "\n";
        const std::vector<std::string> packets = modem.take_requests();
        for (size_t i = 0; i < packets.size(); ++i)
            if (i < 4 || i + 9 > packets.size())
                text += " " + short_hex(packets[i].substr(3)) + "\n";
        for (const auto& entry : platform_test_log())
            if (entry.priority == ANDROID_LOG_ERROR) text += "  E " + entry.text + "\n";
        platform_test_clear_log();
        return text;
    }
    std::string answer(const std::string& question) {
        std::string text;
        for (const words& line : words_of(question)) {
            if (line[0] == "campaign" || line[0] == "nothing") fill(line);
            if (line[0] == "refuse") refused = std::stoi(line[1]);
            if (line[0] == "fields") fields = line[1];
            if (line[0] == "decode") text += decode(bytes(line.size() > 1 ? line[1] : ""));
            if (line[0] == "connect") connect();
            if (line[0] == "release") release();
            if (line[0] == "indicate") text += indicate(bytes(line[1]));
            const words requests = {"start", "prepare", "flush", "fetch",
                                    "pause", "resume",  "delay", "revision"};
            if (std::count(requests.begin(), requests.end(), line[0])) text += ask(line);
        }
        return text;
    }
    std::string decode(const std::string& logic) {
        const bool whole = mps_campaign_desc_decode_from_buffer(raw(logic), logic.size(), &record);
        return whole ? text_of(record) + "\n" : "refused\n";
    }
    // The event it raises. An indication that nobody knows shows that this one was handled.
    std::string indicate(const std::string& packet) const {
        platform_test_clear_log();
        mps_clear_event(UINT32_MAX);
        modem.send(bytes("02 0000") + packet);
        modem.send(bytes("02 0000 6300 0000"));
        const char* unknown = "mps_kbr_ind_cb: unknown msg_id: 99\n";
        EXPECT_TRUE(platform_test_wait_log(unknown, EVENT_LIMIT.count()));
        return std::to_string(mps_events()) + "\n";
    }

    kbr_service modem{"vexa"};
    std::atomic<int> refused{0}, silent_to{0}, stop_at{-1000};
    std::string fields = "02040000000000";
    stop_flag stop;
    stop_flag between;  // has no descriptor: it ends no request under way
    MpsCampaign record;
};

TEST(MpsService, LargestRequestsAreAsTheServiceHasThem) {
    EXPECT_EQ(vexa_get_service_object_internal_v01(1, 2, 6), nullptr);
    const kbr_service_object& service = *vexa_get_service_object_internal_v01(1, 1, 6);
    EXPECT_EQ(kbr_message_max_len(*kbr_find_message(service, KBR_REQUEST, 2)), 839u);
    EXPECT_EQ(kbr_message_max_len(*kbr_find_message(service, KBR_REQUEST, 3)), 816u);
}

TEST_F(MpsKbr, Dialogue) {
    expect_dialogue("mps/client", [this](const std::string& text) { return answer(text); });
}

TEST_F(MpsKbr, StopIsLookedAtBetweenParts) {
    record.collection_spec = spec_of(800 * 5);
    stop_at = 1;
    EXPECT_EQ(modem_result_number(mps_kbr_init_mpss_bsi(&record, 0, between)), -EINTR);
    EXPECT_EQ(modem.take_requests().size(), 3u);
}

// The clock stands still: no time-out ends it. What comes of a connection that was given up is
// released unseen, and later calls go nowhere.
TEST_F(MpsKbr, StopEndsARequestAndConnecting) {
    const auto stopped = [this](const std::function<modem_result()>& call) {
        std::thread caller([&] { EXPECT_NE(call(), modem_result::OK); });
        EXPECT_TRUE(platform_test_wait_parked(2, EVENT_LIMIT.count()));
        stop_flag_raise(&stop);
        caller.join();
        EXPECT_EQ(mps_kbr_fetch_results(), modem_result::GONE);
        release();
        stop.raised = 0;
        close(stop.fd.exchange(-1));
        EXPECT_EQ(stop_flag_open(&stop), 0);
    };
    silent_to = MPS_DATA_REQUEST;
    stopped(mps_kbr_fetch_results);
    std::vector<unique_fd> queue;  // which is full then
    while (queue.empty() || queue.back()) queue.push_back(modem.connect_another());
    stopped([this] { return mps_kbr_init(stop); });
    for (size_t i = 1; i < queue.size(); ++i) modem.accept();
    platform_test_advance_ms(1000);
    modem.accept();
    EXPECT_EQ(modem.receive(), "");
}

}  // namespace
