// The client of the modem's device configuration: what it makes of answers and indications that a
// modem should not send, or sends at another time. What it does with a good modem, and one that
// refuses or is silent, is told in tests/transcripts.
#include "collectors/mccbandlist/pdc_kbr.h"

#include <gtest/gtest.h>

#include <cstring>

#include "collectors/mccbandlist/pdc_indications.h"
#include "support/dialogue.h"
#include "support/kbr_service.h"
#include "support/log.h"

namespace {

std::string indication(char msg, const std::string& fields) {
    return bytes("02 0000") + msg + '\0' + static_cast<char>(fields.size()) +
           static_cast<char>(fields.size() >> 8) + fields;
}
// The indication that belongs to a request, of these fields behind its token.
std::string outcome(const std::string& request, const std::string& fields) {
    return indication(request[3], bytes("01 0400") + request.substr(10, 4) + fields);
}

std::string header_field(size_t size, char byte) {
    const auto u16 = [](size_t n) { return std::string{static_cast<char>(n), char(n >> 8)}; };
    return "\x10" + u16(size + 2) + u16(size) + std::string(size, byte);
}

struct PdcKbr : ::testing::Test {
    void SetUp() override {
        platform_test_set_clock(platform_test_clock::MANUAL);
        ASSERT_EQ(stop_flag_open(&stop), 0);
        ASSERT_EQ(pdc_kbr_init(stop), 0);
        modem.accept();
    }
    void TearDown() override {
        modem.hang_up();
        pdc_kbr_clean();
        close(stop.fd.exchange(-1));
    }
    void renew() {
        TearDown();
        SetUp();
        platform_test_clear_log();
    }
    // The indication goes out first, so that it comes before anybody waits.
    void answer(const std::string& fields) {
        modem.answer([=, this](const std::string& request) {
            modem.send(outcome(request, fields));
            return response_to(request);
        });
    }
    int get_info() { return pdc_get_config_info(id, &info, 16, stop); }
    int load(size_t size) {
        return pdc_load_config_mem(spec_of(size).bytes.get(), size, id, 16, stop);
    }

    kbr_service modem{"pdc"};
    stop_flag stop;
    pdc_config_id id{.len = 124, .bytes = {0x0a, 0x0b, 0x0c, 0x0d}};
    pdc_config_info info;
};

// "load FIELDS": what becomes of a load whose indications carry those fields. "22 FIELDS": what is
// said of an indication of that id.
TEST_F(PdcKbr, IndicationsAreTakenForWhatTheySay) {
    expect_dialogue("mccbandlist/indications", [this](const std::string& question) {
        const std::string words = question.substr(0, question.size() - 1) + " ";
        const std::string fields = bytes(words.substr(words.find(' ') + 1));
        renew();
        size_t seen = 0;
        if (question.starts_with("load")) {
            answer(fields);
            const std::string result = std::to_string(load(901));
            return result + ", " + std::to_string(modem.take_requests().size()) + " segments\n";
        }
        modem.send(indication(bytes(words)[0], fields));
        // One more behind it, after which it has been handled.
        modem.send(indication('\x26', bytes("01 0400 ffffffff")));
        EXPECT_TRUE(platform_test_wait_log("kbr_pdc_load_config_ind_hdlr ", EVENT_LIMIT.count()));
        return log_lines(&seen);
    });
    EXPECT_EQ(pdc_load_config_mem(nullptr, 1, id, 16, stop), -1);
    EXPECT_EQ(load(0), -1);
}

TEST_F(PdcKbr, IndicationThatComesLateIsNobodys) {
    std::string first;
    modem.answer([&](const std::string& request) {
        if (first.empty()) {
            first = request;
        } else {
            modem.send(outcome(first, header_field(40, 'l')));
            modem.send(outcome(request, header_field(40, 'r')));
            modem.send(outcome(request, header_field(40, 'd')));
        }
        return response_to(request);
    });
    std::thread caller([&] { EXPECT_EQ(get_info(), -1); });
    EXPECT_TRUE(platform_test_wait_log("pdc_get_config_info : waiting pdc_get_info_cond ",
                                       EVENT_LIMIT.count()));
    EXPECT_TRUE(platform_test_wait_parked(2, EVENT_LIMIT.count()));
    EXPECT_EQ(get_info(), -2);
    platform_test_advance_ms(10000);
    caller.join();
    EXPECT_EQ(get_info(), 0);
    EXPECT_EQ(info.header[0], 'r');
}

// The clock stands still, so no time-out ends a call.
TEST_F(PdcKbr, IndicationWithoutATokenOrThatNobodyCanReadIsTheCallInProgresss) {
    const std::tuple<std::string, int> cases[] = {
        {"", 0}, {bytes("10 ff00 00"), -1},  // a field longer than the message
    };
    for (const auto& [fields, result] : cases) {
        modem.answer([&, fields = fields](const std::string& request) {
            modem.send(indication(request[3], fields));
            return response_to(request);
        });
        EXPECT_EQ(get_info(), result);
        EXPECT_EQ(load(5), result);
        renew();
    }
}

TEST_F(PdcKbr, WithoutAConnectionOrAModernServiceOrAShortIdThereIsNothing) {
    id.len = 125;
    EXPECT_EQ(get_info(), -4);
    EXPECT_EQ(load(1), -4);
    id.len = 124;
    pdc_kbr_clean();
    EXPECT_EQ(get_info(), -1);
    EXPECT_EQ(load(1), -1);
    EXPECT_TRUE(pdc_is_idl_supported(2, 0) && pdc_is_idl_supported(1, 15));
    EXPECT_FALSE(pdc_is_idl_supported(1, 14) || pdc_is_idl_supported(0, 16));
}

}  // namespace
