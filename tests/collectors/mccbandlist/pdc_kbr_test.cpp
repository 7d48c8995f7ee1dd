// The client of the modem's device configuration: what it makes of answers and indications that a
// modem should not send, or sends at another time. What it does with a good modem, and one that
// refuses or is silent, is told in tests/transcripts.
#include "collectors/mccbandlist/pdc_kbr.h"

#include <gtest/gtest.h>

#include <cstring>

#include "collectors/mccbandlist/pdc_indications.h"
#include "support/kbr_service.h"
#include "support/log.h"

namespace {

const std::string STALE = "ffffffff";  // a token that no call has

std::string indication(char msg, const std::string& fields) {
    return hex_bytes("02 0000") + msg + '\0' + static_cast<char>(fields.size()) +
           static_cast<char>(fields.size() >> 8) + fields;
}
// The indication that belongs to a request, of these fields behind its token.
std::string outcome(const std::string& request, const std::string& fields) {
    return indication(request[3], hex_bytes("01 0400") + request.substr(10, 4) + fields);
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

TEST_F(PdcKbr, OutcomeOfALoadIsTheModems) {
    const std::tuple<const char*, int, size_t> cases[] = {
        {"", 0, 2},
        {"12 0400 00000000", 0, 1},
        {"10 0200 0000", 0, 2},
        {"10 0200 0300 13 0100 01", -1, 1},
        {"12 0400 00000000 13 0100 00", -3, 1},
    };
    for (const auto& [fields, result, segments] : cases) {
        answer(hex_bytes(fields));
        EXPECT_EQ(load(901), result) << fields;
        EXPECT_EQ(modem.take_requests().size(), segments) << fields;
        renew();
    }
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
        {"", 0}, {hex_bytes("10 ff00 00"), -1},  // a field longer than the message
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

TEST_F(PdcKbr, IndicationsThatNothingAsksForAreSaidAndDoNoHarm) {
    const std::tuple<char, std::string, const char*> cases[] = {
        {'\x22', hex_bytes("10 0200 0500"), "E vexastatsd-mbl: KBR error, error code: 5\n"},
        {'\x22', hex_bytes("11 0400 0200 0102"), ""},
        {'\x22', hex_bytes("11 7f00 7d00") + std::string(125, 'x'), ""},
        {'\x22', hex_bytes("12 0300 0100 09"), "I vexastatsd-mbl: has pending configuration\n"},
        {'\x24', hex_bytes("11 0200 0000"), "E vexastatsd-mbl: None MBN available in modem EFS\n"},
        {'\x24', "", ""},
        {'\x24', hex_bytes("11 3400 1900") + std::string(50, '\0'),
         "I vexastatsd-mbl: succeed to get config_list\n"},
        {'\x24', hex_bytes("11 3600 1a00") + std::string(52, '\0'), ""},
        {'\x77', "", "E vexastatsd-mbl: failed to get message c_struct len\n"},
        {'\x28', hex_bytes("10 ff00 00"),
         "E vexastatsd-mbl: failed to decode kbr message, msg_id: 0x28\n"
         "E vexastatsd-mbl: NULL pointer for ind_data_ptr\n"},
    };
    const std::string begin = "I vexastatsd-mbl: kbr_pdc_unsol_ind_cb \n";
    for (const auto& [msg, fields, said] : cases) {
        platform_test_clear_log();
        modem.send(indication(msg, fields));
        // One more behind it, after which it has been handled.
        modem.send(indication('\x26', hex_bytes("01 0400") + hex_bytes(STALE)));
        ASSERT_TRUE(platform_test_wait_log("kbr_pdc_load_config_ind_hdlr ", EVENT_LIMIT.count()));
        size_t seen = 0;
        EXPECT_EQ(log_lines(&seen),
                  begin + said + begin + "I vexastatsd-mbl: kbr_pdc_load_config_ind_hdlr \n");
    }
}

}  // namespace
