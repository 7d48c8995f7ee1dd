// The client of the modem's device configuration: what it makes of answers and indications,
// whenever they come, and stops in its waits.
#include "collectors/mccbandlist/pdc_kbr.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>

#include "collectors/mccbandlist/pdc_indications.h"
#include "framework/time/clock.h"
#include "support/kbr_service.h"
#include "support/log.h"

using ::testing::HasSubstr;

namespace {

constexpr uint32_t TYPE = 16;
const std::string SUCCESS = "02 0400 0000 0000";
const std::string STALE = "ffffffff";  // a token that no call has

// Bytes that tell where in a configuration they stand.
std::string config(size_t size) {
    const owned_bytes bytes = spec_of(size);
    return {bytes.bytes.get(), bytes.bytes.get() + size};
}

std::string token_of(const std::string& request) {
    return request.substr(10, 4);
}

// The indication that belongs to a request, of these fields behind its token.
std::string indication(const std::string& request, const std::string& fields,
                       const std::string& token) {
    const std::string all = hex_bytes("01 0400") + token + fields;
    return hex_bytes("02 0000") + request.substr(3, 2) + static_cast<char>(all.size()) +
           static_cast<char>(all.size() >> 8) + all;
}
std::string indication(const std::string& request, const std::string& fields) {
    return indication(request, fields, token_of(request));
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
    // The indication goes out first, so that it comes before anybody waits.
    void answer(const std::string& response, const std::string& fields) {
        modem.answer([=, this](const std::string& request) {
            modem.send(indication(request, fields));
            return response_to(request, hex_bytes(response));
        });
    }
    int get_info() { return pdc_get_config_info(id, &info, TYPE, stop); }
    int load(size_t size) {
        const std::string bytes = config(size);
        return pdc_load_config_mem(reinterpret_cast<const uint8_t*>(bytes.data()), size, id, TYPE,
                                   stop);
    }
    void renew() {
        TearDown();
        stop.raised = 0;
        SetUp();
        platform_test_clear_log();
    }

    kbr_service modem{"pdc"};
    stop_flag stop;
    pdc_config_id id{.len = 4, .bytes = {0x0a, 0x0b, 0x0c, 0x0d}};
    pdc_config_info info;
};

TEST_F(PdcKbr, OutcomeOfALoadIsTheModems) {
    const std::tuple<std::string, std::string, int, size_t, const char*> cases[] = {
        {SUCCESS, "11 0400 84030000 12 0400 01000000", 0, 2, "Reach data end: 901"},
        {SUCCESS, "", 0, 2, "The remaining size: 901Reach data end: 901"},
        {SUCCESS, "12 0400 00000000", 0, 1, "The remaining size: 0"},
        {SUCCESS, "10 0200 0000", 0, 2, "Reach data end: 901"},
        {SUCCESS, "10 0200 0200", -5, 1, "no memory in modem EFS"},
        {SUCCESS, "10 0200 2900", -4, 1, "Invalid config id, maybe already exists"},
        {SUCCESS, "10 0200 0300 13 0100 01", -1, 1, "load configuration error, code = 3"},
        {SUCCESS, "12 0400 00000000 13 0100 00", -3, 1, "PDC frame data is reset"},
        {"02 0400 0100 1a00", "", -1, 1, "kbr send message error for load_configs, errno: -2 "},
    };
    for (const auto& [response, fields, result, segments, logged] : cases) {
        answer(response, hex_bytes(fields));
        EXPECT_EQ(load(901), result) << logged;
        EXPECT_EQ(modem.take_requests().size(), segments) << logged;
        EXPECT_THAT(log_text(), HasSubstr(logged));
        renew();
    }
    EXPECT_EQ(pdc_load_config_mem(nullptr, 1, id, TYPE, stop), -1);
    EXPECT_EQ(load(0), -1);
}

TEST_F(PdcKbr, IndicationThatComesLateIsNobodys) {
    std::string first;
    modem.answer([&](const std::string& request) {
        if (first.empty()) {
            first = request;
        } else {
            modem.send(indication(first, header_field(40, 'l')));
            modem.send(indication(request, header_field(40, 'r')));
            modem.send(indication(request, header_field(40, 'd')));
        }
        return response_to(request);
    });
    std::thread caller([&] { EXPECT_EQ(get_info(), -1); });
    EXPECT_TRUE(platform_test_wait_log("pdc_get_config_info : waiting pdc_get_info_cond ",
                                       EVENT_LIMIT.count()));
    EXPECT_TRUE(platform_test_wait_parked(2, EVENT_LIMIT.count()));
    EXPECT_EQ(get_info(), -2);
    platform_test_advance_ms(9999);
    EXPECT_EQ(platform_test_log_count("pdc_get_config_info : pdc_get_info_cond exit with 110"), 0u);
    platform_test_advance_ms(1);
    caller.join();
    EXPECT_EQ(get_info(), 0);
    EXPECT_EQ(info.header[0], 'r');
}

TEST_F(PdcKbr, OutcomeOfAnInquiryIsTheModems) {
    id.len = 125;
    EXPECT_EQ(get_info(), -4);
    EXPECT_TRUE(modem.take_requests().empty());
    id.len = 124;  // and nothing is busy
    const std::tuple<std::string, std::string, int, uint32_t> cases[] = {
        {SUCCESS, header_field(40, 'h'), 0, 40},
        {"02 0400 0100 0000", header_field(512, 'h'), 0, 512},
        {"02 0400 0100 1a00", "", 0, 0},
        {"02 0400 0100 0300", "", -1, 0},
    };
    for (const auto& [response, fields, result, len] : cases) {
        info = {};
        answer(response, fields);
        EXPECT_EQ(get_info(), result);
        EXPECT_EQ(info.header_len, len);
        EXPECT_EQ(info.header[len ? len - 1 : 0], len ? 'h' : 0);
        renew();
    }
    // A library may deliver more than there is room for.
    modem.answer([&](const std::string& request) {
        pdc_get_config_info_indication large{.config_header_valid = 1, .config_header_len = 100000};
        large.token_valid = 1;
        memcpy(&large.token, token_of(request).data(), sizeof large.token);
        kbr_pdc_get_config_info_ind_hdlr(&large);
        return response_to(request);
    });
    EXPECT_EQ(get_info(), 0);
    EXPECT_EQ(info.header_len, 512u);
}

// The clock stands still, so no time-out ends a call.
TEST_F(PdcKbr, IndicationWithoutATokenOrThatNobodyCanReadIsTheCallInProgresss) {
    const std::tuple<std::string, int> cases[] = {
        {"", 0}, {hex_bytes("10 ff00 00"), -1},  // a field longer than the message
    };
    for (const auto& [fields, result] : cases) {
        modem.answer([&, fields = fields](const std::string& request) {
            modem.send(hex_bytes("02 0000") + request.substr(3, 2) +
                       static_cast<char>(fields.size()) + '\0' + fields);
            return response_to(request);
        });
        EXPECT_EQ(get_info(), result);
        EXPECT_EQ(load(5), result);
        renew();
    }
}

TEST_F(PdcKbr, LoadWaitsForItsIndicationUntilItsLimitOrAStop) {
    for (const bool is_stopped : {false, true}) {
        modem.answer([&](const std::string& request) {
            modem.send(response_to(request));
            return indication(request, hex_bytes("12 0400 00000000"), hex_bytes(STALE));
        });
        std::atomic<bool> over{false};
        std::thread caller([&] {
            EXPECT_EQ(load(5), -1);
            over = true;
        });
        // Once it is there the response, which came before, has been taken.
        EXPECT_TRUE(platform_test_wait_log("kbr_pdc_load_config_ind_hdlr ", EVENT_LIMIT.count()));
        if (is_stopped) stop_flag_raise(&stop);
        while (!is_stopped && !over) platform_test_advance_ms(PDC_LOAD_LIMIT_MS);
        caller.join();
        renew();
    }
}

TEST_F(PdcKbr, WithoutAConnectionOrAModernServiceThereIsNothing) {
    pdc_kbr_clean();
    EXPECT_EQ(get_info(), -1);
    EXPECT_TRUE(pdc_is_idl_supported(2, 0) && pdc_is_idl_supported(1, 15));
    EXPECT_FALSE(pdc_is_idl_supported(1, 14) || pdc_is_idl_supported(0, 16));
}

TEST_F(PdcKbr, IndicationsThatNothingAsksForAreSaidAndDoNoHarm) {
    const std::string entries(100, '\0');
    const std::tuple<char, std::string, const char*> cases[] = {
        {'\x22', hex_bytes("10 0200 0500"), "E vexastatsd-mbl: KBR error, error code: 5\n"},
        {'\x22', hex_bytes("11 0400 0200 0102"), ""},
        {'\x22', hex_bytes("11 7f00 7d00") + std::string(125, 'x'), ""},
        {'\x22', hex_bytes("12 0300 0100 09"), "I vexastatsd-mbl: has pending configuration\n"},
        {'\x24', hex_bytes("10 0200 0500"), "E vexastatsd-mbl: KBR error, error code: 5\n"},
        {'\x24', hex_bytes("11 0200 0000"), "E vexastatsd-mbl: None MBN available in modem EFS\n"},
        {'\x24', "", ""},
        {'\x24', hex_bytes("11 3400 1900") + entries.substr(50),
         "I vexastatsd-mbl: succeed to get config_list\n"},
        {'\x24', hex_bytes("11 3600 1a00") + entries.substr(48), ""},
        {'\x77', "", "E vexastatsd-mbl: failed to get message c_struct len\n"},
        {'\x28', hex_bytes("10 ff00 00"),
         "E vexastatsd-mbl: failed to decode kbr message, msg_id: 0x28\n"
         "E vexastatsd-mbl: NULL pointer for ind_data_ptr\n"},
    };
    const std::string begin = "I vexastatsd-mbl: kbr_pdc_unsol_ind_cb \n";
    for (const auto& [msg, fields, said] : cases) {
        platform_test_clear_log();
        modem.send(hex_bytes("02 0000") + msg + '\0' + static_cast<char>(fields.size()) + '\0' +
                   fields);
        // One more behind it, after which it has been handled.
        modem.send(hex_bytes("02 0000 2600 0700 01 0400") + hex_bytes(STALE));
        ASSERT_TRUE(platform_test_wait_log("kbr_pdc_load_config_ind_hdlr ", EVENT_LIMIT.count()));
        size_t seen = 0;
        EXPECT_EQ(log_lines(&seen),
                  begin + said + begin + "I vexastatsd-mbl: kbr_pdc_load_config_ind_hdlr \n");
    }
}

}  // namespace
